#include "support/params.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <gtest/gtest.h>

namespace support {

namespace {

constexpr char fill = '~';
constexpr size_t guard = 32;

} // namespace

Params::Params(const std::string &json)
    : params_(json.empty() ? nullptr : json_loads(json.c_str(), JSON_DECODE_ANY, nullptr)) {
    if (!json.empty() && params_ == nullptr) {
        throw std::runtime_error("no JSON: " + json);
    }
}

Params::~Params() {
    json_decref(params_);
    json_decref(debug_message_);
}

std::string Params::message() const {
    if (debug_message_ == nullptr) {
        return "(none)";
    }
    EXPECT_TRUE(json_is_object(debug_message_));
    EXPECT_EQ(json_object_size(debug_message_), 1U);
    EXPECT_EQ(debug_message_->refcount, 1U) << "the caller owns the only reference";
    const char *text = json_string_value(json_object_get(debug_message_, "message"));
    return text != nullptr ? text : "(no text)";
}

void Params::set_message(const std::string &text) {
    json_decref(debug_message_);
    debug_message_ = json_pack("{s:s}", "message", text.c_str());
}

Buffer::Buffer(size_t size) : size_(size), bytes_(size + guard, fill) { bytes_.back() = '\0'; }

Buffer::~Buffer() {
    const auto first_guard = bytes_.begin() + static_cast<std::ptrdiff_t>(size_);
    EXPECT_TRUE(std::all_of(first_guard, bytes_.end() - 1, [](char c) { return c == fill; }))
        << "wrote past " << size_ << " bytes";
}

bool Buffer::untouched() const {
    return std::all_of(bytes_.begin(), bytes_.end() - 1, [](char c) { return c == fill; });
}

bool Buffer::cleared_behind_text() const {
    const auto text_end = bytes_.begin() + static_cast<std::ptrdiff_t>(std::strlen(bytes_.data()));
    const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(size_);
    return text_end < end && std::all_of(text_end, end, [](char c) { return c == '\0'; });
}

} // namespace support
