/**
 * Output for people: colours where a terminal bears them, tables, durations, and the nearest of some words.
 */
#ifndef TAVRIX_TOOLS_WORDS_H
#define TAVRIX_TOOLS_WORDS_H

#include <string>
#include <vector>

namespace tavrixctl {

enum class Colour { bold, green, yellow, red };

/** The text in a colour, when standard output is a terminal and NO_COLOR does not forbid it. */
std::string coloured(const std::string &text, Colour colour);

/** Rows of cells in columns as wide as they have to be. The first row is the heading. */
class Table {
  public:
    explicit Table(std::vector<std::string> heading) { rows_.push_back(std::move(heading)); }
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    /** These columns, counted from 0, stand at the right of their places. */
    void align_right(size_t first, size_t last) {
        right_first_ = first;
        right_last_ = last;
    }
    /** Every line but the heading whose cell in this column is the word gets its colour. */
    void colour(size_t column, const std::string &word, Colour colour) { marks_.push_back({column, word, colour}); }
    std::vector<std::string> lines() const;

  private:
    struct Mark {
        size_t column;
        std::string word;
        Colour colour;
    };
    std::string cell(size_t row, size_t column, size_t width) const;

    std::vector<std::vector<std::string>> rows_;
    std::vector<Mark> marks_;
    size_t right_first_ = 1;
    size_t right_last_ = 0;
};

/** Breaks a list of words into lines of at most so many characters; no line is empty but the only one. */
std::vector<std::string> wrapped(const std::vector<std::string> &words, size_t width);

/** "0.412 ms", "2.50 s". */
std::string milliseconds_text(double milliseconds);

/** "3 h 12 min", "5 s". */
std::string duration_text(double seconds);

/** A local date and time, or only the time of day with milliseconds. */
std::string date_text(double seconds_since_1970);
std::string time_text(double seconds_since_1970);
double now_since_1970();

/** What the bus calls the channel: a short name for the system's own, otherwise its printable text. */
std::string channel_name(const std::string &channel);

/** From one to the other of the system's own channels; empty when there is none. */
std::string short_name_of(const std::string &channel);
std::string channel_of(const std::string &short_name);
std::vector<std::string> channel_names();

/** The candidate that was probably intended; empty when none is near. */
std::string nearest(const std::string &word, const std::vector<std::string> &candidates);

} // namespace tavrixctl

#endif
