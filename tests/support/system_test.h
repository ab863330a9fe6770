/**
 * What the tests of processes have in common: the daemons, those who speak to them, and how a program is expected to
 * have ended.
 */
#ifndef TAVRIX_TESTS_SUPPORT_SYSTEM_TEST_H
#define TAVRIX_TESTS_SUPPORT_SYSTEM_TEST_H

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "support/fleet.h"
#include "support/json.h"
#include "support/matchers.h"
#include "support/session.h"

#endif
