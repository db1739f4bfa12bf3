// The device link open on the in-process simulated appliance, and helpers shared by the link and request tests.
#pragma once

#include "logCapture.h"
#include "qxUsb.h"
#include "simAppliance.h"
#include "simInProcess.h"
#include "sysSeam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <ranges>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

inline std::vector<simEventKind> simKinds()
{
    const auto kinds = simEvents() | std::views::transform(&simEvent::kind);
    return {kinds.begin(), kinds.end()};
}

template <typename Bytes> bool allAre(const Bytes &bytes, uint8_t v)
{
    return std::all_of(std::begin(bytes), std::end(bytes), [v](uint8_t b) { return b == v; });
}

class simLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        simInProcessInstall();
        ASSERT_EQ(qxUsbInit(), 0);
        forget();
    }
    void TearDown() override
    {
        qxUsbCleanUp();
        simInProcessUninstall();
    }
    // Only what comes next is looked at.
    void forget()
    {
        simClearEvents();
        simClearSleeps();
        log.clear();
    }
    logCapture log;
};
