// The text of a trace record, argument by argument after its signature, as a reader of the trace
// would put it together.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace pkgdist::test {

// `problem`, when given, says how signature and format disagree; it is left alone when they do not.
inline std::string trace_text(const char* signature, const char* format, va_list arguments,
                              std::string* problem = nullptr) {
  std::string text;
  for (const char* at = format; *at != '\0';) {
    if (*at != '%') {
      const size_t plain = std::strcspn(at, "%");
      text.append(at, plain);
      at += plain;
      continue;
    }
    if (at[1] == '%') {
      text += '%';
      at += 2;
      continue;
    }
    const size_t length = std::strcspn(at + 1, "diuxXpsc") + 2;
    const std::string directive(at, length);
    at += length;
    char piece[4096];
    switch (*signature++) {
      case 's':
        std::snprintf(piece, sizeof piece, directive.c_str(), va_arg(arguments, const char*));
        break;
      case 'd':
        std::snprintf(piece, sizeof piece, directive.c_str(), va_arg(arguments, int));
        break;
      case 'D':
        std::snprintf(piece, sizeof piece, directive.c_str(), va_arg(arguments, long));
        break;
      default:
        if (problem != nullptr)
          *problem = std::string("signature shorter than the format: ") + format;
        return text;
    }
    text += piece;
  }
  if (*signature != '\0' && problem != nullptr)
    *problem = std::string("signature longer than the format: ") + format;
  return text;
}

}  // namespace pkgdist::test
