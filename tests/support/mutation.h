/**
 * Seeded values for comparing two judges of a text: near valid ones, of an alphabet, of any bytes.
 */
#ifndef TAVRIX_TESTS_SUPPORT_MUTATION_H
#define TAVRIX_TESTS_SUPPORT_MUTATION_H

#include <cstdint>
#include <functional>
#include <random>
#include <string>

namespace support {

class Mutator {
  public:
    explicit Mutator(uint32_t seed) : random_(seed) {}

    /** A number below `limit`; the same sequence on every machine. */
    size_t below(size_t limit) { return random_() % limit; }
    /** The text after one to three small changes: a character put in, taken out, replaced or moved, a part doubled. */
    std::string near(const std::string &text, const std::string &alphabet);
    /** Up to `longest` characters of an alphabet. */
    std::string of(const std::string &alphabet, size_t longest);
    /** Up to `longest` bytes of any value but 0. */
    std::string bytes(size_t longest);

  private:
    void change(std::string &text, const std::string &alphabet);

    std::mt19937 random_;
};

/** Hands over every text that is one character put in, replaced or taken out away from `text`. */
void for_each_neighbour(const std::string &text, const std::string &alphabet,
                        const std::function<void(const std::string &)> &visit);

/** Repeats a piece that is not empty up to a length. */
std::string repeated(const std::string &piece, size_t length);

} // namespace support

#endif
