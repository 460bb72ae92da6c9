#pragma once

// The core library is built with hidden visibility; only what carries this
// macro is part of its binary interface.
#define OPCCORE_EXPORT __attribute__((visibility("default")))
