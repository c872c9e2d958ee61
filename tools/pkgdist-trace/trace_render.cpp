// Puts the arguments of a record into the format of its point. The format is never handed to printf
// as it stands: each directive is taken apart, and its argument is what the record says it is.
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "pkgdist/status.h"
#include "printable.h"
#include "trace_reader.h"

namespace pkgdist::trace {

namespace {

constexpr const char* kMismatch = "<?>";
constexpr size_t kWidest = 100;  // characters of a directive's flags, width and precision

// A directive as far as it matters here: "%-08.3lx" is flags "-08.3" and conversion 'x'.
struct Directive {
  std::string flags;
  char conversion = 0;
};

// `at` is behind the percent sign, afterwards behind the directive.
Directive take_directive(const std::string& format, size_t& at) {
  Directive directive;
  while (at < format.size() && std::strchr("-+ #0123456789.", format[at]) != nullptr)
    directive.flags += format[at++];
  while (at < format.size() && std::strchr("hljztL", format[at]) != nullptr) ++at;
  if (at < format.size()) directive.conversion = format[at++];
  return directive;
}

// Widths of 1000 and more are nothing that a log statement has.
bool is_sane(const std::string& flags) {
  size_t digits = 0;
  for (const char c : flags) {
    digits = std::isdigit(static_cast<unsigned char>(c)) != 0 ? digits + 1 : 0;
    if (digits > 3) return false;
  }
  return flags.size() < kWidest;
}

template <class Value>
std::string print(const std::string& flags, const char* conversion, Value value) {
  const std::string format = "%" + flags + conversion;
  const int size = std::snprintf(nullptr, 0, format.c_str(), value);
  if (size < 0) return kMismatch;
  std::string text(static_cast<size_t>(size) + 1, '\0');
  std::snprintf(text.data(), text.size(), format.c_str(), value);
  text.pop_back();
  return text;
}

long long as_signed(const Argument& argument) {
  return argument.type == 'd' ? static_cast<int32_t>(argument.value)
                              : static_cast<long long>(argument.value);
}

bool ends_like(const std::string& text, const char* word) {
  const size_t size = std::strlen(word);
  return text.size() >= size && ::strcasecmp(text.c_str() + text.size() - size, word) == 0;
}

// Whether the number behind this text is an identifier of the lead: those have 32 bits without a
// sign, and the statements print them with one.
bool names_identifier(const std::string& before) {
  for (const char* word : {" id ", " id '", "sequence "})
    if (ends_like(before, word)) return true;
  return false;
}

// A status in words, behind its number; nothing for success.
std::string status_words(const std::string& before, const Argument& argument) {
  if (!ends_like(before, "status ") || argument.type != 'D' || argument.value == 0) return "";
  return std::string(" (") + pkgdist_status_str(argument.value) + ")";
}

std::string fill_in(const Directive& directive, const Argument& argument) {
  const std::string& flags = directive.flags;
  if (!is_sane(flags)) return kMismatch;
  const bool number = argument.type != 's';
  switch (directive.conversion) {
    case 's':
      return number ? kMismatch : print(flags, "s", argument.text.c_str());
    case 'd':
    case 'i':
      return number ? print(flags, "lld", as_signed(argument)) : kMismatch;
    case 'u':
    case 'x':
    case 'X':
    case 'o': {
      const char conversion[] = {'l', 'l', directive.conversion, '\0'};
      return number ? print(flags, conversion, static_cast<unsigned long long>(argument.value))
                    : kMismatch;
    }
    case 'c':
      return number ? std::string(1, static_cast<char>(argument.value)) : kMismatch;
    case 'p':
      if (!number) return kMismatch;
      return argument.value == 0
                 ? "(nil)"
                 : print("#", "llx", static_cast<unsigned long long>(argument.value));
    default:
      return kMismatch;
  }
}

}  // namespace

std::string render(const Point& point, const Record& record) {
  const std::string& format = point.format;
  std::string text;
  std::string before;  // what the format has since its last directive
  size_t next = 0;
  for (size_t at = 0; at < format.size();) {
    const char c = format[at++];
    if (c != '%') {
      text += c;
      before += c;
    } else if (at < format.size() && format[at] == '%') {
      text += '%';
      ++at;
    } else {
      Directive directive = take_directive(format, at);
      if (directive.conversion == 'd' && names_identifier(before)) directive.conversion = 'u';
      if (next < record.arguments.size())
        text += fill_in(directive, record.arguments[next]) +
                status_words(before, record.arguments[next]);
      else
        text += kMismatch;
      before.clear();
      ++next;
    }
  }
  text.erase(text.find_last_not_of('\n') + 1);
  return cli::printable(text) + (record.cut ? " [cut]" : "");
}

}  // namespace pkgdist::trace
