#include "support/mutation.h"

#include <utility>

namespace support {

std::string Mutator::near(const std::string &text, const std::string &alphabet) {
    std::string changed = text;
    for (size_t i = below(3) + 1; i > 0; --i) {
        change(changed, alphabet);
    }
    return changed;
}

void Mutator::change(std::string &text, const std::string &alphabet) {
    const size_t at = below(text.size() + 1);
    const char c = alphabet[below(alphabet.size())];
    switch (at == text.size() ? 0 : below(5)) {
    case 0:
        text.insert(at, 1, c);
        break;
    case 1:
        text.erase(at, 1);
        break;
    case 2:
        text[at] = c;
        break;
    case 3:
        std::swap(text[at], text[below(text.size())]);
        break;
    default:
        text.insert(at, text.substr(at, below(4) + 1));
    }
}

std::string Mutator::of(const std::string &alphabet, size_t longest) {
    std::string text(below(longest + 1), ' ');
    for (char &c : text) {
        c = alphabet[below(alphabet.size())];
    }
    return text;
}

std::string Mutator::bytes(size_t longest) {
    std::string text(below(longest + 1), ' ');
    for (char &c : text) {
        c = static_cast<char>(1 + below(255));
    }
    return text;
}

void for_each_neighbour(const std::string &text, const std::string &alphabet,
                        const std::function<void(const std::string &)> &visit) {
    for (size_t at = 0; at <= text.size(); ++at) {
        for (const char c : alphabet) {
            visit(std::string(text).insert(at, 1, c));
        }
        if (at == text.size()) {
            break;
        }
        visit(std::string(text).erase(at, 1));
        for (const char c : alphabet) {
            std::string replaced = text;
            replaced[at] = c;
            visit(replaced);
        }
    }
}

std::string repeated(const std::string &piece, size_t length) {
    std::string text;
    text.reserve(length + piece.size());
    while (text.size() < length) {
        text += piece;
    }
    text.resize(length);
    return text;
}

} // namespace support
