#pragma once

// The package library is built with hidden visibility; only what carries this
// macro is part of its binary interface.
#define OPCFSPACKAGE_EXPORT __attribute__((visibility("default")))
