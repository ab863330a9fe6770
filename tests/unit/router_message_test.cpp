/*
 * What the router changes in a message's text is what it would change in its values.
 */
#include "router/message.h"

#include <string>

#include <gtest/gtest.h>

#include "support/mutation.h"

using namespace support;

using router::Edits;
using router::Renderer;
using tavrix::Json;

namespace {

constexpr uint32_t seed = 20093; // the same texts in every run
constexpr int texts = 20000;

Json parsed(std::string_view text) {
    return Json(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES | JSON_DISABLE_EOF_CHECK, nullptr));
}

} // namespace

TEST(RouterMessage, IsRewrittenAsItsValuesWouldBe) {
    const std::string good = R"({"jsonrpc":"2.0", "id" : 7,"method":"a.B","params":{"id":[1,"}\",{\\"],"x":0.1},)"
                             R"("transaction_id":12,"caller":{"uid":0},"é":null})";
    const Edits edits = {{"transaction_id", "5"}, {"id", "\"channel\"", true}, {"caller", "", true}};
    Mutator mutator(seed);
    Renderer renderer;
    int rewritten = 0;
    for (int i = 0; i < texts; ++i) {
        const std::string text =
            mutator.near(i % 2 == 0 ? good : good.substr(0, good.find(",\"é\"")) + "}", "{}[]\",:\\ 0e.ui\td\x7fé");
        Json values = parsed(text);
        if (!json_is_object(values.get())) {
            continue;
        }
        const std::string line(renderer.rewrite({parsed(text), text}, edits));
        router::apply_edits(edits, values.get());
        const Json read(json_loads(line.c_str(), JSON_REJECT_DUPLICATES, nullptr));
        ASSERT_TRUE(json_equal(read.get(), values.get())) << text << "\n" << line;
        ASSERT_EQ(line.find('\n'), std::string::npos) << line;
        rewritten += line.find(":0.1}") != std::string::npos ? 1 : 0; // a rendering has all its digits
    }
    EXPECT_GT(rewritten, texts / 20) << "most texts are in one line of ASCII";
}
