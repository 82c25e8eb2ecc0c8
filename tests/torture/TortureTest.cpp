#include "Torture.h"

#include <gtest/gtest.h>

namespace {

using namespace velahost_test;

class Torture : public testing::TestWithParam<Operation>
{};

TEST_P(Torture, FailingCalls)
{
    TortureByCalls(GetParam());
}

TEST_P(Torture, FailingAllocations)
{
    TortureByAllocations(GetParam());
}

INSTANTIATE_TEST_SUITE_P(, Torture, testing::ValuesIn(AllOperations()),
                         [](const auto& test) { return test.param.name; });

} // namespace
