/**
 * A record of what is in nanomsg's topic trees.
 *
 * nanomsg cannot list its topics, and must not be asked to remove one that has no node of its own in the socket's tree:
 * it would remove another topic, or crash. A topic has a node while it is subscribed, and while longer topics continue
 * it with at least two different bytes.
 */
#ifndef TAVRIX_INTERNAL_TOPICS_H
#define TAVRIX_INTERNAL_TOPICS_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "common/handles.h"

namespace tavrix {

/** A topic of a socket, identified by its text. */
struct TopicName {
    int sock;
    const char *text;
    size_t length;
};

/** A subscribed topic; its text follows it in memory. */
struct Topic {
    Topic *next;
    size_t length;
    int sock;
    unsigned count; ///< how often it is subscribed

    char *text() { return reinterpret_cast<char *>(this + 1); }
    const char *text() const { return reinterpret_cast<const char *>(this + 1); }
    TopicName name() const { return {sock, text(), length}; }
    /** Whether it begins with the named topic and belongs to the same socket. */
    bool begins_with(const TopicName &name) const {
        return sock == name.sock && length >= name.length && std::memcmp(text(), name.text, name.length) == 0;
    }
    /** Whether the named topic is longer and begins with this one. */
    bool begins(const TopicName &name) const {
        return sock == name.sock && length < name.length && std::memcmp(text(), name.text, length) == 0;
    }
};

using OwnedTopic = std::unique_ptr<Topic, FreeMemory>;

/** A topic that is subscribed once; null when memory runs out. */
inline OwnedTopic make_topic(const TopicName &name) {
    OwnedTopic topic(static_cast<Topic *>(std::malloc(sizeof(Topic) + name.length)));
    if (topic) {
        *topic = {nullptr, name.length, name.sock, 1};
        std::memcpy(topic->text(), name.text, name.length);
    }
    return topic;
}

/** The bytes with which longer topics continue a topic, at one node of the tree. */
struct Branches {
    bool taken[256] = {};
    unsigned count = 0;

    void take(char byte) {
        bool &place = taken[static_cast<unsigned char>(byte)];
        count += place ? 0 : 1;
        place = true;
    }
    bool has(char byte) const { return taken[static_cast<unsigned char>(byte)]; }
};

/** A list of topics, of one socket or of several; it belongs to whoever began with `first`. */
class Topics {
  public:
    explicit Topics(Topic *first) : first_(first) {}

    Topic *first() const { return first_; }

    bool any_of(int sock) const {
        const Topic *topic = first_;
        while (topic != nullptr && topic->sock != sock) {
            topic = topic->next;
        }
        return topic != nullptr;
    }

    /** Whether nanomsg's tree has a node for exactly this topic. */
    bool has_node(const TopicName &name) { return *find(name) != nullptr || branches_after(name).count >= 2; }

    /** Records a subscription that nanomsg has made. */
    void add(OwnedTopic topic) {
        const TopicName name = topic->name();
        lose_where_nanomsg_does(name);
        Topic *there = *find(name);
        if (there != nullptr) {
            ++there->count;
            return;
        }
        topic->next = first_;
        first_ = topic.release();
    }

    /** Records that nanomsg has removed a subscription. */
    void remove(const TopicName &name) {
        Topic **place = find(name);
        if (*place != nullptr && --(*place)->count == 0) {
            drop(place);
            lose_where_nanomsg_does(name);
        }
    }

    void remove_all_of(int sock) {
        drop_if([sock](const Topic &topic) { return topic.sock == sock; });
    }

  private:
    /** The place of the topic in the list, or the end of the list. */
    Topic **find(const TopicName &name) {
        Topic **place = &first_;
        while (*place != nullptr && !((*place)->length == name.length && (*place)->begins_with(name))) {
            place = &(*place)->next;
        }
        return place;
    }

    Branches branches_after(const TopicName &name) const {
        Branches branches;
        for (const Topic *topic = first_; topic != nullptr; topic = topic->next) {
            if (topic->length > name.length && topic->begins_with(name)) {
                branches.take(topic->text()[name.length]);
            }
        }
        return branches;
    }

    /**
     * Whenever a node of nanomsg's tree grows from eight branches to nine, or shrinks back to eight, its own topic is
     * lost: that is when a longer topic comes or goes that is alone in its branch and has eight branches beside it.
     */
    void lose_where_nanomsg_does(const TopicName &longer) {
        drop_if([this, &longer](const Topic &topic) {
            if (!topic.begins(longer)) {
                return false;
            }
            const Branches branches = branches_after(topic.name());
            return branches.count == most_sparse_branches && !branches.has(longer.text[topic.length]);
        });
    }

    template <class Condition>
    void drop_if(Condition condition) {
        Topic **place = &first_;
        while (*place != nullptr) {
            if (condition(**place)) {
                drop(place);
            } else {
                place = &(*place)->next;
            }
        }
    }

    static void drop(Topic **place) {
        const OwnedTopic gone(*place);
        *place = gone->next;
    }

    static constexpr unsigned most_sparse_branches = 8;

    Topic *first_;
};

} // namespace tavrix

#endif
