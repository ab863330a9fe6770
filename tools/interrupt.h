/**
 * SIGINT and SIGTERM as an orderly end, for verbs that go on until they are told to stop.
 */
#ifndef TAVRIX_TOOLS_INTERRUPT_H
#define TAVRIX_TOOLS_INTERRUPT_H

namespace tavrixctl {

/** From now on the two signals only ask for the end. Complains and returns false when they cannot be watched. */
bool stop_on_signals();

bool stop_requested();

/** Readable once a stop is asked for, so that a signal just before a poll is not slept over; -1 when nobody watches. */
int stop_descriptor();

/** Sleeps so long, or until a stop is asked for. */
void sleep_unless_stopped(double seconds);

} // namespace tavrixctl

#endif
