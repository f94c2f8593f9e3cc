#pragma once

namespace nqrun {

/// Ctrl-C, and what systems send to end a program. The first Ctrl-C asks to finish what runs; the
/// second, SIGTERM and SIGHUP ask to end at once.
class StopSignals {
public:
    enum class Wish { None, Finish, End };

    /// Installs the handlers, which last as long as the process. SIGHUP stays ignored if it is, as
    /// nohup makes it.
    static void watch();

    static Wish wish();

    /// The last signal; 0: none.
    static int signal();

    /// Readable when a signal has come; empty() reads it.
    static int descriptor();
    static void empty();
};

} // namespace nqrun
