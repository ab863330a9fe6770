/**
 * What the router's monitor tells, put together again: requests with their replies, and notifications.
 */
#ifndef TAVRIX_TOOLS_TRAFFIC_H
#define TAVRIX_TOOLS_TRAFFIC_H

#include <map>

#include "support.h"

namespace tavrixctl {

/** A request and how it ended, or a notification. */
struct Exchange {
    double time = 0; ///< of the request, since 1970
    std::string method;
    std::string service; ///< empty when the router knows none
    std::string road;
    std::string client;
    std::string outcome; ///< empty for notifications, and while there is no reply
    double seconds = 0;  ///< from request to reply
    Json request;        ///< or the notification; null when it was not seen
    Json reply;

    bool is_notification = false;
};

/** The exchange as one JSON object, which is how it is recorded. */
Json to_json(const Exchange &exchange);

/** The exchange for people, on one line. `width` is that of the method's column, which grows as it has to. */
std::string to_line(const Exchange &exchange, size_t *width);

/** Whether the options' filters want it: errors only, slower than. */
bool is_wanted(const Exchange &exchange, const MonitorOptions &options);

/** Finds the request of each reply. */
class Pairing {
  public:
    /** Takes one router.Traffic; gives the exchange that it completes, if any. */
    std::optional<Exchange> take(const json_t *params);
    /** The same of a frame of the bus; the channel becomes the road. */
    std::optional<Exchange> take_frame(double time, const std::string &channel, json_t *message);
    /** What has no reply yet. */
    const std::map<json_int_t, Exchange> &pending() const { return pending_; }

  private:
    void keep(json_int_t call, Exchange exchange);

    std::map<json_int_t, Exchange> pending_; ///< by the router's number, which a request on the bus has, too
};

/** Counts and times by method, for the end. */
class Summary {
  public:
    void add(const Exchange &exchange);
    /** Prints the table; what was never answered only of the service, if one is named. Nothing when there is nothing.
     */
    void tell_all(const Pairing &pairing, const std::string &service);

  private:
    struct Row {
        unsigned notifications = 0;
        unsigned calls = 0;
        unsigned errors = 0;
        unsigned unanswered = 0;
        std::vector<double> seconds;
    };
    std::map<std::string, Row> rows_;
};

} // namespace tavrixctl

#endif
