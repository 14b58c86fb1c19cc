// The full-screen view in a terminal: keys, sizes and colours; what it shows is watch_layout's.
#include "control/observe/watch_screen.h"

#include "control/command.h"
#include "control/observe/watch_layout.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

// Last, since ncurses defines macros with common names.
#define NCURSES_NOMACROS 1
#include <curses.h>
#include <term.h>
#undef lines

namespace control {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int escapeDelay = 25; // milliseconds that tell the key Escape from a key's sequence

/// Those that would end the program in the middle of the screen, and the news of a new size.
constexpr std::array<int, 9> heldSignals{SIGINT,  SIGTERM, SIGHUP,  SIGQUIT, SIGPIPE,
                                         SIGALRM, SIGUSR1, SIGUSR2, SIGWINCH};

/// Lets signals arrive as something to be read, for as long as it lives.
class HeldSignals {
public:
    HeldSignals() {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : heldSignals) {
            sigaddset(&set, signal);
        }
        pthread_sigmask(SIG_BLOCK, &set, &before);
        descriptor = Descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    }
    ~HeldSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    int fd() const { return descriptor.get(); }

    /// The next one that arrived, or 0.
    int next() const {
        signalfd_siginfo info{};
        return read(descriptor.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)
                   ? static_cast<int>(info.ssi_signo)
                   : 0;
    }

private:
    sigset_t before{};
    Descriptor descriptor;
};

/// The terminal in ncurses' hands; as it was when this ends.
class Terminal {
public:
    Terminal() {
        screen = newterm(nullptr, stdout, stdin);
        if (screen == nullptr) {
            return;
        }
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        set_escdelay(escapeDelay);
        curs_set(0); // fails where the cursor can't be hidden: it is seen, then
        useColours();
    }
    ~Terminal() {
        if (screen != nullptr) {
            curs_set(1);
            endwin();
            delscreen(screen);
        }
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    bool works() const { return screen != nullptr; }

    void draw(const Layout& layout) const {
        int row = 0;
        for (const Line& line : layout.lines) {
            wmove(stdscr, row, 0);
            for (const Segment& segment : line) {
                wattrset(stdscr, static_cast<int>(attributes(segment.style)));
                waddstr(stdscr, segment.text.c_str());
            }
            wattrset(stdscr, A_NORMAL);
            // A full line has left the cursor in the next one, which is not to be cleared.
            if (getcury(stdscr) == row) {
                wclrtoeol(stdscr);
            }
            ++row;
        }
        wrefresh(stdscr);
    }

private:
    enum Pair : short { goodPair = 1, warningPair, badPair, barPair };

    void useColours() {
        if (!wantsColours() || !has_colors() || start_color() == ERR) {
            return;
        }
        const short background = use_default_colors() == OK ? -1 : COLOR_BLACK;
        init_pair(goodPair, COLOR_GREEN, background);
        init_pair(warningPair, COLOR_YELLOW, background);
        init_pair(badPair, COLOR_RED, background);
        init_pair(barPair, COLOR_CYAN, background);
        colours = true;
    }

    attr_t attributes(Style style) const {
        const auto colour = [this](Pair pair) {
            return colours ? static_cast<attr_t>(COLOR_PAIR(pair)) : A_NORMAL;
        };
        switch (style) {
        case Style::normal:
            return A_NORMAL;
        case Style::dim:
            return A_DIM;
        case Style::good:
            return colour(goodPair) | A_BOLD;
        case Style::warning:
            return colour(warningPair) | A_BOLD;
        case Style::bad:
            return colour(badPair) | A_BOLD | A_REVERSE;
        case Style::heading:
            return A_BOLD;
        case Style::graph:
            return colour(barPair);
        }
        return A_NORMAL;
    }

    SCREEN* screen = nullptr;
    bool colours = false;
};

/// Whether there is a terminal that can be drawn on; complains if not.
bool isUsable() {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        complain("the live view needs a terminal; --once or --json show the same without one");
        return false;
    }
    // Asked before newterm(), which would leave some memory behind where it fails.
    const char* const name = std::getenv("TERM");
    int found = 0;
    const bool isKnown =
        name != nullptr && *name != '\0' && setupterm(name, STDOUT_FILENO, &found) != ERR;
    const char* const move = isKnown ? tigetstr("cup") : nullptr;
    // -1 stands for a name that tigetstr() does not know.
    const bool canMove = move != nullptr && reinterpret_cast<std::intptr_t>(move) != -1;
    if (isKnown) {
        del_curterm(cur_term);
    }
    if (!canMove) {
        complain("no screen can be drawn on a terminal \"" +
                 std::string(name == nullptr ? "" : name) +
                 "\" (variable TERM); --once or --json show the same without one");
        return false;
    }
    return true;
}

/// One run of the view.
class Screen {
public:
    Screen(SnapshotSource& aSource, Snapshot first, double intervalSeconds, bool unicode)
        : source(aSource), snapshot(std::move(first)),
          interval(std::chrono::duration_cast<Clock::duration>(
              std::chrono::duration<double>(intervalSeconds))) {
        view.unicode = unicode;
    }

    /// Returns the signal that ended it, or 0.
    int run(const HeldSignals& signals, const Terminal& terminal) {
        Clock::time_point due = Clock::now() + interval;
        while (!quit) {
            show(terminal);
            wait(signals, due);
            for (int signal = signals.next(); signal != 0; signal = signals.next()) {
                if (signal != SIGWINCH) {
                    return signal;
                }
                resize();
            }
            takeKeys();
            if (Clock::now() >= due) {
                // Read on while paused, too: rates and rotations must not be missed.
                Snapshot fresh = source.look();
                if (!view.paused) {
                    snapshot = std::move(fresh);
                }
                due = Clock::now() + interval;
            }
        }
        return 0;
    }

private:
    void show(const Terminal& terminal) {
        view.width = getmaxx(stdscr);
        view.height = getmaxy(stdscr);
        const Layout layout = layOut(snapshot, view);
        maxScroll = layout.maxScroll;
        view.scroll = std::clamp(view.scroll, 0, maxScroll);
        terminal.draw(layout);
    }

    void wait(const HeldSignals& signals, Clock::time_point due) {
        std::array<pollfd, 2> sources{{{STDIN_FILENO, POLLIN, 0}, {signals.fd(), POLLIN, 0}}};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now()).count();
        const int timeout =
            static_cast<int>(std::clamp<long>(static_cast<long>(left) + 1, 0, 60000));
        if (poll(sources.data(), sources.size(), timeout) < 0) {
            return; // stopped and continued: ncurses has put the screen back
        }
        if ((sources[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
            quit = true; // the terminal is gone
        }
    }

    static void resize() {
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
            resizeterm(size.ws_row, size.ws_col);
            wclear(stdscr);
        }
    }

    void takeKeys() {
        // What is typed ahead is bounded by the terminal; a flood waits for the next round.
        for (int count = 0; count < 100 && !quit; ++count) {
            const int key = wgetch(stdscr);
            if (key == ERR) {
                return;
            }
            take(key);
        }
    }

    void take(int key) {
        const int page = std::max(1, view.help ? view.height - 2 : view.height / 4);
        switch (key) {
        case 'q':
        case 'Q':
        case 3: // Ctrl-C where the terminal makes no signal of it
            quit = true;
            break;
        case 'h':
        case 'H':
        case '?':
            view.help = !view.help;
            std::swap(view.scroll, otherScroll);
            maxScroll = std::max(maxScroll, view.scroll); // known when it has been laid out
            break;
        case 27: // Escape
            if (view.help) {
                take('h');
            }
            break;
        case ' ':
            view.paused = !view.paused;
            break;
        case 'r':
        case 'R':
        case 12: // Ctrl-L
            wclear(stdscr);
            break;
        case 'j':
        case KEY_DOWN:
            ++view.scroll;
            break;
        case 'k':
        case KEY_UP:
            --view.scroll;
            break;
        case KEY_NPAGE:
            view.scroll += page;
            break;
        case KEY_PPAGE:
            view.scroll -= page;
            break;
        case KEY_HOME:
            view.scroll = 0;
            break;
        case KEY_END:
            view.scroll = maxScroll;
            break;
        default:
            break;
        }
        view.scroll = std::clamp(view.scroll, 0, maxScroll);
    }

    SnapshotSource& source;
    Snapshot snapshot;
    Clock::duration interval;
    View view;
    int otherScroll = 0; // of the help while the figures are shown, and the other way round
    int maxScroll = 0;
    bool quit = false;
};

} // namespace

int runWatchScreen(SnapshotSource& source, double intervalSeconds) {
    const bool unicode = usesUnicode();
    if (!isUsable()) {
        return failed;
    }
    // While no signal is held back: the first look may take a while.
    Snapshot first = source.look();
    int signal = 0;
    {
        const HeldSignals signals;
        if (signals.fd() < 0) {
            complain(std::string("no signals can be waited for: ") + std::strerror(errno));
            return failed;
        }
        {
            const Terminal terminal;
            if (!terminal.works()) {
                complain("the terminal can't be drawn on; --once or --json show the same");
                return failed;
            }
            signal =
                Screen(source, std::move(first), intervalSeconds, unicode).run(signals, terminal);
        }
        if (signal != 0 && signal != SIGINT) {
            // It ends the program as soon as it is no longer held back.
            std::signal(signal, SIG_DFL);
            raise(signal);
        }
    }
    return succeeded;
}

} // namespace control
