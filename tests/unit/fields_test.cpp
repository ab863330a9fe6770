/*
 * The tests' table of fields: no field of the library is missing in it, and each row holds of the library.
 */
#include "support/fields.h"

#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/params.h"
#include "tavrix_error.h"
#include "tavrix_validation.h"

using namespace support;

namespace {

constexpr char reader[] = "tavrix_jrpc_utils_retrieve_input_";
constexpr char validator[] = "validate_";

/** The exported functions of fields. */
std::set<std::string> exported() {
    std::set<std::string> found;
    std::ifstream symbols(TAVRIX_EXPORTED_SYMBOLS);
    for (std::string name; std::getline(symbols, name);) {
        if (name.rfind(reader, 0) == 0 || name.rfind(validator, 0) == 0) {
            found.insert(name);
        }
    }
    return found;
}

class Fields : public testing::TestWithParam<Field> {};

INSTANTIATE_TEST_SUITE_P(Row, Fields, testing::ValuesIn(fields()), [](const auto &row) { return row.param.name; });

} // namespace

TEST(FieldTable, HasEachExportedReaderAndValidator) {
    std::set<std::string> tested = {"validate_date_time"}; // takes two values: see tavrix_validation_test.cpp
    for (const Field &field : fields()) {
        if (field.has_reader()) {
            tested.insert(reader + std::string(field.name));
        }
        if (field.has_validator()) {
            tested.insert(validator + std::string(field.name));
        }
    }
    EXPECT_EQ(tested, exported());
}

TEST_P(Fields, AreJudgedAsTheRowSays) {
    const LogCapture log("off");
    const Field &field = GetParam();
    ASSERT_FALSE(field.valid.empty());
    if (!field.has_validator()) {
        EXPECT_TRUE(field.invalid.empty());
        return;
    }
    for (const std::string &value : field.valid) {
        EXPECT_EQ(field.judge(value), TAVRIX_VALID) << value;
    }
    if (!field.invalid.empty()) {
        EXPECT_EQ(field.judge(field.invalid), field.verdict);
    }
}

TEST_P(Fields, AreReadWhenTheyAreThere) {
    const LogCapture log("off");
    const Field &field = GetParam();
    if (!field.has_reader()) {
        return;
    }
    char out[128] = "";
    Params params(field.params(field.valid.front()));
    EXPECT_EQ(field.read(params.get(), params.debug(), "k", out, sizeof out), TAVRIX_OK);
    EXPECT_EQ(field.read(params.get(), params.debug(), "absent", out, sizeof out), TAVRIX_ERR_PARAMETER_NOT_FOUND);
}
