// A rig for each test, its plug-in in Run, and a look at what it holds when the test is over.
#pragma once

#include <gtest/gtest.h>

#include "fakes/Ledger.h"
#include "fakes/Rig.h"
#include "fakes/Traffic.h"

class PluginTest : public ::testing::Test, public Rig {
  protected:
    PluginTest() {
        host.Start();
        Handle("");  // until all its threads are there
    }
    ~PluginTest() override {
        host.DropPlugin();
        controller.Attached();  // ends of devices that the test did not look at
        EXPECT_TRUE(ledger_.Balanced());
    }

    void Reply(const std::string& pdu, std::uint32_t devid = 5) {
        host.Receive(ForwardMessage(devid, pdu));
    }
    void ExpectLog(int level, const std::string& text, int times = 1) {
        EXPECT_TRUE(host.runtime.WaitForLine({level, text}, times)) << text;
    }
    // The next message of the module carries this PDU, plain.
    void ExpectForwarded(std::uint32_t devid, const std::string& pdu) {
        EXPECT_TRUE(NextMessage() == ForwardMessage(devid, pdu))
            << "device " << devid << ", PDU of " << pdu.size() << " bytes";
    }

  private:
    const Ledger ledger_{};
};
