/**
 * The parameters of one request and the debug message of its handler.
 *
 *     Params params(R"({"port_id": "c1-1"})");
 *     const int rc = tavrix_jrpc_utils_parse_input_integer(params.get(), params.debug(), "port_id", &out);
 *     EXPECT_EQ(rc, TAVRIX_ERR_INVALID_PARAMETER);
 *     EXPECT_EQ(params.message(), "Parameter 'port_id' is not of type 'integer'.");
 */
#ifndef TAVRIX_TESTS_SUPPORT_PARAMS_H
#define TAVRIX_TESTS_SUPPORT_PARAMS_H

#include <string>
#include <vector>

#include <jansson.h>

namespace support {

class Params {
  public:
    /** Any JSON text; the empty one gives null parameters. */
    explicit Params(const std::string &json);
    ~Params();
    Params(const Params &) = delete;
    Params &operator=(const Params &) = delete;

    json_t *get() const { return params_; }
    json_t **debug() { return &debug_message_; }
    /** The debug message's text; "(none)" while there is none. It has to be an object of that one member. */
    std::string message() const;
    /** Puts an earlier message into the slot. */
    void set_message(const std::string &text);

    /** Calls a reader with the parameters, the place for the message, and these arguments. */
    template <class Reader, class... Arguments>
    int read(Reader reader, Arguments... arguments) {
        return reader(params_, &debug_message_, arguments...);
    }
    /** The reader as a function of the arguments alone. */
    template <class Reader>
    auto reading(Reader reader) {
        return [this, reader](auto... arguments) { return this->read(reader, arguments...); };
    }

  private:
    json_t *params_;
    json_t *debug_message_ = nullptr;
};

/** A buffer with a guard behind it: notices what is written past the size that was told. */
class Buffer {
  public:
    explicit Buffer(size_t size);
    ~Buffer();
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;

    char *get() { return bytes_.data(); }
    size_t size() const { return size_; }
    std::string text() const { return bytes_.data(); }
    /** Whether no byte was written at all. */
    bool untouched() const;
    /** Whether everything after the text is zero. */
    bool cleared_behind_text() const;

  private:
    size_t size_;
    std::vector<char> bytes_;
};

} // namespace support

#endif
