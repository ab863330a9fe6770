/**
 * What a daemon does with signals: SIGTERM and SIGINT ask it to stop, SIGHUP to reread its logger's configuration,
 * SIGALRM only interrupts.
 *
 * The handlers are installed without SA_RESTART: a library call that waits comes back with a failure, and the daemon
 * looks at these flags before it takes the failure for a real one. A descriptor becomes readable with every signal, so
 * that one that arrives just before a poll is not lost. Once a stop is asked for, a tick goes on interrupting, so that
 * even a wait of several attempts comes back.
 */
#ifndef TAVRIX_DAEMONS_COMMON_SIGNALS_H
#define TAVRIX_DAEMONS_COMMON_SIGNALS_H

namespace daemon_support {

/** Installs the handlers; call it once, before anything waits. */
bool install_signals();

/** The descriptor to poll beside the daemon's own. */
int signal_descriptor();

/** Makes the descriptor unreadable again. */
void drain_signal_descriptor();

bool stop_requested();

/** True once for each time that SIGHUP came. */
bool take_reload_request();

/**
 * Interrupts whatever waits on this thread once `first_ms` have passed, and then again and again, as long as it lives.
 * The process has one timer: of two such bounds the later one counts, and ends both.
 */
class Deadline {
  public:
    explicit Deadline(int first_ms);
    Deadline(const Deadline &) = delete;
    Deadline &operator=(const Deadline &) = delete;
    ~Deadline();

    /** Whether the time has passed. */
    bool happened() const;

  private:
    int ticks_before_ = 0;
};

/** Holds SIGHUP back as long as it lives. */
class ReloadHeldBack {
  public:
    ReloadHeldBack();
    ReloadHeldBack(const ReloadHeldBack &) = delete;
    ReloadHeldBack &operator=(const ReloadHeldBack &) = delete;
    ~ReloadHeldBack();
};

/** The bound on a client's request: a deadline, and no reload meanwhile that would cost the client its request. */
class Interruption {
  public:
    explicit Interruption(int first_ms) : deadline_(first_ms) {}

    bool happened() const { return deadline_.happened(); }

  private:
    ReloadHeldBack held_back_;
    Deadline deadline_;
};

} // namespace daemon_support

#endif
