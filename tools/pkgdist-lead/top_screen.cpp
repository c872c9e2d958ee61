#include "top_screen.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <langinfo.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "cli_common.h"
#include "printable.h"
#include "progress.h"
#include "top_picture.h"
// Last: it defines macros with short names.
#include <ncurses.h>

namespace pkgdist::lead_program {

namespace {

// The screen follows keys at once, states and new sizes within this time.
constexpr int kTickMilliseconds = 100;
// How long the terminal may take to take the last bytes.
constexpr auto kLeaveTime = std::chrono::milliseconds(500);
constexpr int kEscapeMilliseconds = 25;
constexpr int kEnter = '\n', kEscape = 27, kBackspace = 127;

int attribute_of(Style style) {
  switch (style) {
    case Style::kPlain:
      return A_NORMAL;
    case Style::kSoft:
      return A_DIM;
    case Style::kTitle:
      return A_BOLD;
    case Style::kChosen:
      return A_REVERSE;
    default:
      return COLOR_PAIR(static_cast<int>(style)) | (style == Style::kBad ? A_BOLD : 0);
  }
}

void define_colours() {
  if (!::has_colors()) return;
  ::start_color();
  ::use_default_colors();
  const auto define = [](Style style, short colour) {
    ::init_pair(static_cast<short>(style), colour, -1);
  };
  define(Style::kBad, COLOR_RED);
  define(Style::kDone, COLOR_GREEN);
  define(Style::kLevel0, COLOR_MAGENTA);
  define(Style::kLevel1, COLOR_YELLOW);
  define(Style::kLevel2, COLOR_CYAN);
  define(Style::kLevel3, COLOR_BLUE);
}

template <class Enum>
void step(Enum& value, int count) {
  value = static_cast<Enum>((static_cast<int>(value) + 1) % count);
}

}  // namespace

struct TopScreen::Shared {
  Shared() = default;
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  ~Shared() {
    for (const int end : wake)
      if (end >= 0) ::close(end);
  }

  int input = -1;
  termios before{};
  int wake[2] = {-1, -1};  // a pipe: something is new

  std::mutex mutex;  // of everything below
  std::condition_variable ended_changed;
  PushState state;
  TopHistory history;
  std::string last;
  std::vector<uint32_t> stops;
  bool left = false;
  bool closing = false;
  bool ended = false;

  // Of the thread alone.
  TopSettings settings;
  bool asks_prefix = false, asks_stop = false;

  void run();
  void draw();
  void key(int key);
  void key_of_prefix(int key);
  void choose(int by);
  void poke() const {
    const char byte = 0;
    if (::write(wake[1], &byte, 1) < 0) return;  // full: it is woken anyway
  }
};

// --- The thread ---

void TopScreen::Shared::draw() {
  Screen size = screen_of_terminal();
  size.utf8 = std::string(::nl_langinfo(CODESET)) == "UTF-8";
  if (static_cast<int>(size.rows) != LINES || static_cast<int>(size.columns) != COLS)
    ::resizeterm(static_cast<int>(size.rows), static_cast<int>(size.columns));
  std::vector<Line> lines;
  {
    const std::lock_guard lock(mutex);
    settings.last = last;
    lines = top_picture(state, history, settings, size);
  }
  ::erase();
  for (size_t row = 0; row < lines.size(); ++row) {
    ::move(static_cast<int>(row), 0);
    for (const Span& span : lines[row]) {
      ::attrset(static_cast<attr_t>(attribute_of(span.style)));
      ::addstr(span.text.c_str());
    }
  }
  ::refresh();
}

void TopScreen::Shared::choose(int by) {
  const std::lock_guard lock(mutex);
  const auto nodes = selected_nodes(state, history, settings);
  if (nodes.empty()) return;
  const auto now = std::find_if(nodes.begin(), nodes.end(), [&](const NodeState* node) {
    return node->address == settings.chosen;
  });
  const auto end = static_cast<ptrdiff_t>(nodes.size()) - 1;
  const ptrdiff_t place =
      now == nodes.end() ? 0 : std::clamp<ptrdiff_t>((now - nodes.begin()) + by, 0, end);
  settings.chosen = nodes[static_cast<size_t>(place)]->address;
}

void TopScreen::Shared::key_of_prefix(int key) {
  if (key == kEnter || key == kEscape) {
    asks_prefix = false;
    if (key == kEscape) settings.prefix.clear();
    settings.question.clear();
    return;
  }
  if ((key == KEY_BACKSPACE || key == kBackspace) && !settings.prefix.empty())
    settings.prefix.pop_back();
  else if ((key >= '0' && key <= '9') || key == '.')
    settings.prefix += static_cast<char>(key);
  settings.question = "addresses that begin with: " + settings.prefix + "_";
}

void TopScreen::Shared::key(int key) {
  if (asks_prefix) return key_of_prefix(key);
  if (std::exchange(asks_stop, false)) {
    settings.question.clear();
    const std::lock_guard lock(mutex);
    if (key == 'y') stops.push_back(settings.chosen);
    return;
  }
  const auto row = static_cast<int>(cells_in_row(screen_of_terminal()));
  switch (key) {
    case 'q':
    case kEscape:
      if (key == kEscape && settings.chosen != 0) {
        settings.chosen = 0;
        break;
      }
      {
        const std::lock_guard lock(mutex);
        left = true;
      }
      break;
    case 'c':
      return step(settings.cells, 2);
    case 's':
      return step(settings.order, 3);
    case 'f':
      return step(settings.filter, 3);
    case '/':
      asks_prefix = true;
      settings.prefix.clear();
      return key_of_prefix(0);
    case 'k':
      if (settings.chosen == 0 || !settings.can_stop) return;
      asks_stop = true;
      settings.question =
          fmt::format("end the push for {}? y/n", cli::format_address(settings.chosen));
      return;
    case KEY_LEFT:
      return choose(-1);
    case KEY_RIGHT:
      return choose(1);
    case KEY_UP:
      return choose(-row);
    case KEY_DOWN:
      return choose(row);
    default:
      return;
  }
}

void TopScreen::Shared::run() {
  (void)::pthread_setname_np(::pthread_self(), "TOP");
  FILE* const in = ::fdopen(::dup(input), "r");
  SCREEN* const screen = ::newterm(nullptr, stdout, in);
  if (screen != nullptr) {
    ::set_escdelay(kEscapeMilliseconds);
    ::cbreak();
    ::noecho();
    ::keypad(stdscr, TRUE);
    ::nodelay(stdscr, TRUE);
    ::curs_set(0);
    define_colours();
    for (;;) {
      for (int pressed = ::getch(); pressed != ERR; pressed = ::getch()) key(pressed);
      draw();
      pollfd waits[2] = {{input, POLLIN, 0}, {wake[0], POLLIN, 0}};
      (void)::poll(waits, 2, kTickMilliseconds);
      char bytes[64];
      if ((waits[1].revents & POLLIN) != 0 && ::read(wake[0], bytes, sizeof bytes) < 0) break;
      const std::lock_guard lock(mutex);
      if (closing) break;
    }
    ::endwin();
    ::delscreen(screen);
  }
  if (in != nullptr) (void)::fclose(in);
  const std::lock_guard lock(mutex);
  left |= screen == nullptr;  // curses does not know the terminal
  ended = true;
  ended_changed.notify_all();
}

// --- The owner's side ---

TopScreen::TopScreen(int input, bool can_stop) : shared_(std::make_shared<Shared>()) {
  if (::isatty(input) == 0 || ::isatty(STDOUT_FILENO) == 0)
    throw std::runtime_error("the full-screen view needs a terminal");
  const char* const terminal = std::getenv("TERM");
  if (terminal == nullptr || *terminal == 0)
    throw std::runtime_error("the full-screen view needs to know the terminal (TERM)");
  (void)std::setlocale(LC_CTYPE, "");
  Shared& shared = *shared_;
  shared.input = input;
  shared.settings.can_stop = can_stop;
  if (::tcgetattr(input, &shared.before) != 0 || ::pipe2(shared.wake, O_CLOEXEC | O_NONBLOCK) != 0)
    throw std::runtime_error("the full-screen view cannot have the terminal");
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread([shared = shared_] { shared->run(); }).detach();
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TopScreen::~TopScreen() {
  std::unique_lock lock(shared_->mutex);
  shared_->closing = true;
  shared_->poke();
  if (!shared_->ended_changed.wait_for(lock, kLeaveTime, [&] { return shared_->ended; }))
    (void)::tcsetattr(shared_->input, TCSANOW, &shared_->before);
}

void TopScreen::show(const PushState& state) {
  const std::lock_guard lock(shared_->mutex);
  shared_->state = state;
  shared_->history.add(state);
  shared_->poke();
}

void TopScreen::tell(const std::string& line) {
  const std::lock_guard lock(shared_->mutex);
  shared_->last = cli::printable(line);
}

bool TopScreen::left() const {
  const std::lock_guard lock(shared_->mutex);
  return shared_->left;
}

std::vector<uint32_t> TopScreen::take_stops() {
  const std::lock_guard lock(shared_->mutex);
  return std::exchange(shared_->stops, {});
}

}  // namespace pkgdist::lead_program
