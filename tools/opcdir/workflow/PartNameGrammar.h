#pragma once

#include <string>
#include <string_view>

namespace opcdir {

// Why partName breaks the grammar of part names, or empty when it keeps it.
// A part name is "/" and segments joined by "/": no segment is empty or ends
// in "."; a segment holds unreserved characters, sub-delimiters, ":", "@",
// non-ASCII characters as UTF-8, and percent-encodings, except those of "/",
// "\" and of unreserved characters (which are written as themselves).
//   "/word/document.xml"  ->  ""
//   "/word//a.xml"        ->  "empty segment"
//   "/media/a%41.png"     ->  "percent-encoded unreserved character '%41'"
std::string partNameGrammarProblem(std::string_view partName);

}  // namespace opcdir
