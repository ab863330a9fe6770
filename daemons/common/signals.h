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
 * SIGHUP is held back meanwhile: a reload must not cost a client its request.
 */
class Interruption {
  public:
    explicit Interruption(int first_ms);
    Interruption(const Interruption &) = delete;
    Interruption &operator=(const Interruption &) = delete;
    ~Interruption();

    /** Whether the time has passed. */
    bool happened() const;

  private:
    int ticks_before_;
};

} // namespace daemon_support

#endif
