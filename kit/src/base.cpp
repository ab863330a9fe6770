/*
 * The kit's leaves: clock, buffers, foreign text, names, the directory of numbered things, and the memory of a call.
 */
#include <cerrno>
#include <cstdio>
#include <ctime>

#include <sys/socket.h>

#include "internal.h"

namespace kit {

namespace {

constexpr size_t first_capacity = 4096;
constexpr size_t kept_capacity = 65536;

} // namespace

void unmake(void *record) { std::free(record); }

// --- Time ----------------------------------------------------------------------------------------------------------

int64_t played_clock_ms = -1;

int64_t now_ms() {
    if (played_clock_ms >= 0) {
        return played_clock_ms;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

timeval time_of_ms(int64_t ms) {
    timeval time{};
    time.tv_sec = static_cast<decltype(time.tv_sec)>(ms / 1000);
    time.tv_usec = static_cast<decltype(time.tv_usec)>(ms % 1000 * 1000);
    return time;
}

bool set_alarm(Alarm *alarm, int64_t ms) {
    if (played_clock_ms >= 0) {
        alarm->due_ms = played_clock_ms + ms;
        alarm->every_ms = (event_get_events(&alarm->ready) & EV_PERSIST) != 0 ? ms : 0;
        return true;
    }
    const timeval time = time_of_ms(ms);
    return event_add(&alarm->ready, &time) == 0;
}

void clear_alarm(Alarm *alarm) {
    alarm->due_ms = 0;
    event_del(&alarm->ready);
}

// --- Buffers -------------------------------------------------------------------------------------------------------

bool buffer_reserve(Buffer *buffer, size_t count) {
    if (buffer->start > 0 && buffer->capacity - buffer->end < count) {
        std::memmove(buffer->bytes, buffer->data(), buffer->size());
        buffer->end -= buffer->start;
        buffer->start = 0;
    }
    if (buffer->capacity - buffer->end >= count) {
        return true;
    }
    size_t capacity = buffer->capacity == 0 ? first_capacity : buffer->capacity;
    while (capacity - buffer->end < count) {
        capacity *= 2;
    }
    char *bytes = static_cast<char *>(std::realloc(buffer->bytes, capacity));
    if (bytes == nullptr) {
        return false;
    }
    buffer->bytes = bytes;
    buffer->capacity = capacity;
    return true;
}

bool buffer_append(Buffer *buffer, const char *bytes, size_t count) {
    if (count == 0) {
        return true; // an empty buffer has no bytes to copy to
    }
    if (!buffer_reserve(buffer, count)) {
        return false;
    }
    std::memcpy(buffer->bytes + buffer->end, bytes, count);
    buffer->end += count;
    return true;
}

void buffer_consume(Buffer *buffer, size_t count) {
    buffer->start += count;
    if (buffer->start < buffer->end) {
        return;
    }
    buffer->start = 0;
    buffer->end = 0;
    if (buffer->capacity > kept_capacity) {
        buffer_free(buffer);
    }
}

void buffer_free(Buffer *buffer) {
    std::free(buffer->bytes);
    *buffer = Buffer{};
}

int buffer_send(Buffer *buffer, int fd) {
    while (buffer->size() > 0) {
        const ssize_t count = send(fd, buffer->data(), buffer->size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            buffer_consume(buffer, static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// --- Texts ---------------------------------------------------------------------------------------------------------

/** A parser's limit; counted in the text, where values of any depth cost no stack. */
static bool is_too_deep(const char *message, size_t length) {
    if (length <= 2 * max_nesting) {
        return false; // each bracket has its counterpart
    }
    size_t depth = 0;
    bool in_text = false;
    for (const char *byte = message; *byte != '\0'; ++byte) {
        if (*byte == '"') {
            in_text = !in_text;
        } else if (in_text) {
            byte += *byte == '\\' ? 1 : 0;
        } else if (*byte == '{' || *byte == '[') {
            if (++depth > max_nesting) {
                return true;
            }
        } else if (*byte == '}' || *byte == ']') {
            --depth;
        }
    }
    return false;
}

Obstacle::Obstacle(const char *message, size_t most) : words{} {
    const size_t length = std::strlen(message);
    if (length > most) {
        std::snprintf(words, sizeof words, "it has %zu bytes, and at most %zu can be sent", length, most);
    } else if (is_too_deep(message, length)) {
        std::snprintf(words, sizeof words, "it is nested deeper than the %zu levels that can be read", max_nesting);
    }
}

// --- Directory -----------------------------------------------------------------------------------------------------

void append(EntryList *list, Entry *entry) {
    entry->previous = list->last;
    entry->next = nullptr;
    (list->last != nullptr ? list->last->next : list->first) = entry;
    list->last = entry;
    ++list->count;
}

void remove(EntryList *list, Entry *entry) {
    (entry->previous != nullptr ? entry->previous->next : list->first) = entry->next;
    (entry->next != nullptr ? entry->next->previous : list->last) = entry->previous;
    --list->count;
}

uint64_t enter(Directory *directory, Entry *entry, EntryType type) {
    entry->number = ++directory->last_number;
    entry->type = type;
    Entry **bucket = &directory->buckets[entry->number % bucket_count];
    entry->chain = *bucket;
    *bucket = entry;
    append(&directory->lists[type], entry);
    return entry->number;
}

void leave(Directory *directory, Entry *entry) {
    Entry **place = &directory->buckets[entry->number % bucket_count];
    while (*place != entry) {
        place = &(*place)->chain;
    }
    *place = entry->chain;
    remove(&directory->lists[entry->type], entry);
}

Entry *find(const Directory *directory, uint64_t number) {
    Entry *entry = directory->buckets[number % bucket_count];
    while (entry != nullptr && entry->number != number) {
        entry = entry->chain;
    }
    return entry;
}

Entry *find(const Directory *directory, uint64_t number, EntryType type) {
    Entry *entry = find(directory, number);
    return entry != nullptr && entry->type == type ? entry : nullptr;
}

// --- The memory of a call ------------------------------------------------------------------------------------------

void *arena_take(Arena *arena, size_t size) {
    constexpr size_t alignment = alignof(ArenaChunk);
    size = (size + alignment - 1) / alignment * alignment;
    if (sizeof arena->first - arena->used >= size) {
        arena->used += size;
        return arena->first + arena->used - size;
    }
    auto *chunk = static_cast<ArenaChunk *>(std::calloc(1, sizeof(ArenaChunk) + size));
    if (chunk == nullptr) {
        return nullptr;
    }
    chunk->next = arena->chunks;
    arena->chunks = chunk;
    return chunk + 1;
}

void arena_clear(Arena *arena) {
    while (arena->chunks != nullptr) {
        ArenaChunk *next = arena->chunks->next;
        std::free(arena->chunks);
        arena->chunks = next;
    }
}

} // namespace kit
