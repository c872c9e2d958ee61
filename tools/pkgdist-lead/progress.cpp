#include "progress.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <cstring>

#include "output.h"

namespace pkgdist::lead_program {

namespace {

using cli::Output;

// Asked of a locale of its own: the program's stays as it is.
bool locale_is_utf8() {
  const locale_t locale = ::newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) return false;
  const bool utf8 = std::strcmp(::nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
  ::freelocale(locale);
  return utf8;
}

}  // namespace

Screen screen_of_terminal() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
    return {};
  return {.columns = size.ws_col, .rows = size.ws_row};
}

ProgressBars::ProgressBars() : utf8_(locale_is_utf8()) {}

// A terminal that has become narrower has broken lines that were wider.
std::string ProgressBars::erasure() {
  const size_t columns = screen_of_terminal().columns;
  size_t rows = 0;
  for (const size_t width : widths_) rows += width == 0 ? 1 : (width + columns - 1) / columns;
  widths_.clear();
  std::string text;
  for (; rows > 0; --rows) text += "\x1b[1A\x1b[2K";
  return text;
}

void ProgressBars::erase() {
  if (!widths_.empty()) cli::standard_output().write(erasure(), Output::Kind::kResult);
}

void ProgressBars::show(const std::vector<std::string>& lines, const Screen& screen) {
  if (cli::standard_output().waiting() != 0) return;
  std::string text = erasure();
  for (const std::string& line : lines) {
    const std::string shown = cut(line, screen.columns - 1);
    text += shown + '\n';
    widths_.push_back(columns_of(shown));
  }
  cli::standard_output().write(std::move(text), Output::Kind::kResult);
}

void ProgressBars::draw(const PushState& state) {
  Screen screen = screen_of_terminal();
  screen.utf8 = utf8_;
  show(bar_lines(state, screen), screen);
}

void ProgressBars::draw_line(const std::string& line) {
  show({line}, screen_of_terminal());
}

}  // namespace pkgdist::lead_program
