// skarnctl watch: shows what the daemon does, as a plain report, as JSON or full-screen. What the
// latter shows is watch_layout's.
#include "control/command.h"
#include "control/observe/figures.h"
#include "control/observe/snapshot_source.h"
#include "control/observe/watch_layout.h"
#include "utilities/descriptors.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
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

/// How long a single report looks, so that it can tell a rate.
constexpr double lookingTime = 2;

/// Seconds of a clock that nobody sets.
double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

/// Milliseconds to that moment for poll(), which is not to wake up before it.
int millisecondsTo(double moment) {
    return static_cast<int>(std::ceil(std::clamp(moment - now(), 0.0, 60.0) * 1000));
}

/// Waits until then, or until nobody reads the standard output any more. False in that case.
bool waitUntil(double moment) {
    pollfd output = {STDOUT_FILENO, 0, 0};
    while (now() < moment) {
        if (poll(&output, 1, millisecondsTo(moment)) > 0) {
            return false;
        }
    }
    return true;
}

/// One report, after a while of looking; or `inLines` one line of JSON after each interval, until
/// nobody reads them.
int report(SnapshotSource& source, const WatchOptions& options) {
    Snapshot snapshot = source.look();
    if (!snapshot.configProblem.empty() && snapshot.detectors.empty() &&
        snapshot.log.coverage == LogCoverage::none && !snapshot.isServed()) {
        complain(snapshot.configProblem); // there is nothing to be shown at all
        return failed;
    }
    for (double next = now();;) {
        if (options.inLines) {
            if (const std::optional<int> end = print(jsonText(snapshot, true) + "\n")) {
                return *end;
            }
        }
        // One that comes late does not let the next ones come faster.
        next = std::max(next + (options.inLines ? options.interval : lookingTime), now());
        if (!waitUntil(next)) {
            return succeeded;
        }
        snapshot = source.look();
        if (!options.inLines) {
            return print(options.json ? jsonText(snapshot, false) + "\n"
                                      : watchText(snapshot, usesUnicode()))
                .value_or(succeeded);
        }
    }
}

/// The full-screen view. The terminal is as it was when this ends.
class Screen {
public:
    Screen(SnapshotSource& aSource, Snapshot first, double seconds, bool unicode)
        : source(aSource), snapshot(std::move(first)), interval(seconds),
          screen(newterm(nullptr, stdout, stdin)) {
        view.unicode = unicode;
        if (screen == nullptr) {
            return;
        }
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        set_escdelay(25); // milliseconds that tell the key Escape from a key's sequence
        curs_set(0);      // fails where the cursor can't be hidden: it is seen, then
        if (wantsColours() && has_colors() && start_color() != ERR) {
            const short background = use_default_colors() == OK ? -1 : COLOR_BLACK;
            short pair = 0;
            for (const Look& look : looks) {
                init_pair(++pair, look.colour, background);
            }
            hasColours = true;
        }
    }
    ~Screen() {
        if (screen != nullptr) {
            curs_set(1);
            endwin();
            delscreen(screen);
        }
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool works() const { return screen != nullptr; }

    /// Shows what the source sees until the operator leaves it, or until a signal, which is read
    /// from this descriptor. Returns the signal, or 0.
    int run(int signals) {
        double due = now() + interval;
        while (!quit) {
            draw();
            std::array<pollfd, 2> inputs{{{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}}};
            // It fails when this was stopped and continued: ncurses has put the screen back, then.
            if (poll(inputs.data(), inputs.size(), millisecondsTo(due)) > 0 &&
                (inputs[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
                return 0; // the terminal is gone
            }
            for (signalfd_siginfo info{}; read(signals, &info, sizeof info) > 0;) {
                if (info.ssi_signo != SIGWINCH) {
                    return static_cast<int>(info.ssi_signo);
                }
                resize();
            }
            // What is typed ahead is bounded by the terminal; a flood waits for the next round.
            int key = 0;
            for (int count = 0; count < 100 && !quit && (key = wgetch(stdscr)) != ERR; ++count) {
                take(key);
            }
            if (now() >= due) {
                // Read on while paused, too: rates and rotations must not be missed.
                Snapshot fresh = source.look();
                if (!view.paused) {
                    snapshot = std::move(fresh);
                }
                due = now() + interval;
            }
        }
        return 0;
    }

private:
    /// How each style looks; without a colour: -1.
    struct Look {
        attr_t attributes;
        short colour;
    };
    static constexpr std::array<Look, 7> looks{{{A_NORMAL, -1},
                                                {A_DIM, -1},
                                                {A_BOLD, COLOR_GREEN},
                                                {A_BOLD, COLOR_YELLOW},
                                                {A_BOLD | A_REVERSE, COLOR_RED},
                                                {A_BOLD, -1},
                                                {A_NORMAL, COLOR_CYAN}}};

    void draw() {
        view.width = getmaxx(stdscr);
        view.height = getmaxy(stdscr);
        const Layout layout = layOut(snapshot, view);
        maxScroll = layout.maxScroll;
        view.scroll = std::min(view.scroll, maxScroll);
        int row = 0;
        for (const Line& line : layout.lines) {
            wmove(stdscr, row, 0);
            for (const Segment& segment : line) {
                const auto style = static_cast<int>(segment.style);
                const Look& look = looks.at(static_cast<std::size_t>(style));
                const bool isColoured = hasColours && look.colour >= 0;
                wattrset(stdscr, static_cast<int>(look.attributes) |
                                     (isColoured ? COLOR_PAIR(style + 1) : 0));
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

    static void resize() {
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
            resizeterm(size.ws_row, size.ws_col);
            wclear(stdscr);
        }
    }

    void take(int key) {
        constexpr int escape = 27;
        const int page = std::max(1, view.help ? view.height - 2 : view.height / 4);
        const std::map<int, int> moves{{'j', 1},
                                       {KEY_DOWN, 1},
                                       {'k', -1},
                                       {KEY_UP, -1},
                                       {KEY_NPAGE, page},
                                       {KEY_PPAGE, -page},
                                       {KEY_HOME, -maxScroll},
                                       {KEY_END, maxScroll}};
        const auto isOneOf = [key](const std::string& keys) {
            return key < 0x80 && keys.find(static_cast<char>(key)) != std::string::npos;
        };
        if (isOneOf("qQ\003")) { // Ctrl-C where the terminal makes no signal of it
            quit = true;
        } else if (isOneOf("hH?") || (key == escape && view.help)) {
            view.help = !view.help;
            std::swap(view.scroll, otherScroll);
            maxScroll = layOut(snapshot, view).maxScroll;
        } else if (key == ' ') {
            view.paused = !view.paused;
        } else if (isOneOf("rR\f")) { // Ctrl-L
            wclear(stdscr);
        } else if (moves.count(key) > 0) {
            view.scroll = std::clamp(view.scroll + moves.at(key), 0, maxScroll);
        }
    }

    SnapshotSource& source;
    Snapshot snapshot;
    double interval;
    SCREEN* screen;
    bool hasColours = false;
    View view;
    int otherScroll = 0; // of the help while the figures are shown, and the other way round
    int maxScroll = 0;
    bool quit = false;
};

/// Why there is no terminal that can be drawn on, or nothing.
std::string terminalProblem() {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        return "the live view needs a terminal";
    }
    // Asked before newterm(), which would leave some memory behind where it fails.
    const char* const variable = std::getenv("TERM");
    const std::string name = variable == nullptr ? "" : variable;
    int found = 0;
    bool canMove = false;
    if (!name.empty() && setupterm(name.c_str(), STDOUT_FILENO, &found) != ERR) {
        canMove = tigetstr("cup") != nullptr;
        del_curterm(cur_term);
    }
    return canMove ? "" : "no screen can be drawn on a terminal \"" + name + "\" (variable TERM)";
}

/// Shows the full-screen view. SIGINT leaves it as the key q does, other signals end the program as
/// they would have, but only when the terminal is as it was. Returns the exit status.
int showScreen(SnapshotSource& source, double interval) {
    const bool unicode = usesUnicode();
    const auto refuse = [](const std::string& problem) {
        complain(problem + "; --once or --json show the same without one");
        return failed;
    };
    if (const std::string problem = terminalProblem(); !problem.empty()) {
        return refuse(problem);
    }
    // While no signal is held back: the first look may take a while.
    Snapshot first = source.look();
    // Those that would end the program in the middle of the screen, and the news of a new size.
    sigset_t held;
    sigemptyset(&held);
    for (const int signal :
         {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGALRM, SIGUSR1, SIGUSR2, SIGWINCH}) {
        sigaddset(&held, signal);
    }
    pthread_sigmask(SIG_BLOCK, &held, nullptr);
    const Descriptor signals(signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
    int signal = 0;
    {
        Screen screen(source, std::move(first), interval, unicode);
        if (!signals || !screen.works()) {
            return refuse("the terminal can't be drawn on");
        }
        signal = screen.run(signals.get());
    }
    if (signal != 0 && signal != SIGINT) {
        std::signal(signal, SIG_DFL);
        raise(signal);
        pthread_sigmask(SIG_UNBLOCK, &held, nullptr); // which lets it end the program
    }
    return succeeded;
}

} // namespace

int runWatch(const CommonOptions& common, const WatchOptions& options) {
    std::signal(SIGPIPE, SIG_IGN);
    SnapshotSource source({options.configFile, common.daemonPath});
    return options.json || options.once || isatty(STDOUT_FILENO) == 0
               ? report(source, options)
               : showScreen(source, options.interval);
}

} // namespace control
