#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/nulls.h"
#include "tavrix_error.h"
#include "tavrix_utils.h"

using namespace support;

TEST(NullTest, PassesWhenNoArgumentIsNull) {
    int a = 0;
    const LogCapture log("verbose");
    EXPECT_EQ(tavrix_check_for_null(0), 0);
    EXPECT_EQ(tavrix_check_for_null(1, &a), 0);
    EXPECT_EQ(tavrix_check_for_null(5, &a, &a, &a, &a, &a), 0);
    EXPECT_TRUE(log.silent());
}

TEST(NullTest, NamesTheFirstNullArgumentByItsIndex) {
    int a = 0;
    const void *null = nullptr;
    for (int index = 0; index < 4; ++index) {
        const LogCapture log("info");
        EXPECT_EQ(tavrix_check_for_null(5, index == 0 ? null : &a, index == 1 ? null : &a, index == 2 ? null : &a,
                                        index == 3 ? null : &a, null),
                  TAVRIX_ERR_GENERAL);
        EXPECT_TRUE(log.said({null_line(static_cast<size_t>(index))}));
    }
}

TEST(NullTest, LooksNoFurtherThanItsCount) {
    int a = 0;
    const void *null = nullptr;
    EXPECT_EQ(tavrix_check_for_null(1, &a, null), 0);
    EXPECT_EQ(tavrix_check_for_null(2, &a, null), TAVRIX_ERR_GENERAL);
}
