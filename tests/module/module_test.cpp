// The factory and logging. The descriptor's bytes are looked at without our headers, elsewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "fakes/FakeHost.h"
#include "module/runtime/XJModLog.h"
#include "module/runtime/XJModRuntime.h"

namespace {

class ModuleTest : public testing::Test {
  protected:
    ~ModuleTest() override { module_->uninit(); }

    bool Init() { return module_->init(static_cast<IXJModRuntime*>(&runtime_)); }
    bool Create(FakePropertySet* props, void** out) {
        return module_->create(static_cast<IXJModPropertySet*>(props), out);
    }

    xjmod_entrypoint* const module_ = xjmod_get_entrypoint();
    FakeRuntime runtime_;
};

TEST_F(ModuleTest, LinesReachTheHostOnlyBetweenInitAndUninit) {
    XJModLog(1, "before");
    ASSERT_TRUE(Init());
    EXPECT_FALSE(module_->init(nullptr));
    std::vector<LogLine> lines{{8, "usbip_client_init"}};
    for (const std::size_t size : {3UL, 4095UL, 5000UL}) {  // of which 4095 are kept
        XJModLog(4, "%s", std::string(size, 'x').c_str());
        lines.push_back({4, std::string(std::min(size, 4095UL), 'x')});
    }
    module_->uninit();
    XJModLog(1, "after");
    EXPECT_EQ(runtime_.Lines(), lines);
}

TEST_F(ModuleTest, RuntimeOperationsAreForwarded) {
    runtime_.on_log = [&, depth = 0]() mutable {
        if (++depth <= 3) XJModLog(1, "again");  // a host may log back
    };
    IXJModRuntime* runtime = CXJModRuntime::Instance();
    for (const bool set : {false, true}) {
        if (set) Init();
        EXPECT_EQ(runtime->GetConfig(false, "b", "c", nullptr, "e"), set);
        EXPECT_EQ(runtime->SaveConfig(false, "b", "c", "d"), set);
        EXPECT_FALSE(runtime->SaveConfig(false, "", "", ""));
        EXPECT_EQ(runtime->GetEnv("x"), set ? &runtime_ : nullptr);
    }
    EXPECT_TRUE(module_->init(runtime));
    XJModLog(1, "once");
    EXPECT_EQ(runtime_.Count({1, "once"}), 1) << "itself is not stored: it would recurse";
    EXPECT_EQ(runtime_.Count({1, "again"}), 3);
}

// The host's Log is never entered by two threads, nor after uninit has returned.
TEST_F(ModuleTest, UninitWhileOthersLog) {
    int inside = 0;  // unguarded: only the promise keeps it in order
    std::atomic<bool> attached{false}, late{false};
    runtime_.on_log = [&] {
        ++inside;
        if (!attached) late = true;
    };
    const auto log = [&](const std::stop_token& stop) {
        while (!stop.stop_requested())
            XJModLog(1, "busy");
    };
    std::jthread one(log), two(log);
    EXPECT_TRUE(Eventually([&] {  // until the threads have really met many a runtime
        attached = true;
        Init();
        XJModLog(1, "here");
        module_->uninit();
        attached = false;
        return runtime_.Count({1, "busy"}) >= 100 && runtime_.Count({1, "here"}) >= 50;
    }));
    one = {}, two = {};  // ends them
    EXPECT_FALSE(late);
    EXPECT_EQ(inside, static_cast<int>(runtime_.Lines().size()));
}

// With the first, both or none of the properties that the factory reads.
template <typename... Value>
CRefObj<FakePropertySet> Props(Value... values) {
    CRefObj<FakePropertySet> props(new FakePropertySet);
    [[maybe_unused]] const char* key = kPropertyInterfaceName;
    ((props->Set(key, values), key = kPropertyVersion), ...);
    return props;
}

TEST_F(ModuleTest, FactoryReadsTheProperties) {
    Init(), runtime_.Forget();
    void* out = this;  // written only on success
    EXPECT_FALSE(Create(nullptr, &out) || Create(Props().Get(), nullptr));
    const LogLine invalid{8, "[file_client] file_client_create invalid param"};
    EXPECT_EQ(runtime_.Lines(), (std::vector{invalid, invalid}));

    constexpr std::int64_t kOne = 0x0001000000000000;
    const struct {
        CRefObj<FakePropertySet> props;
        bool made;
        std::string name, version;  // as logged
        int refusal = 0;            // level of a second line
    } rows[] = {
        {Props("IClientUsbipPlugin", kOne), true, "IClientUsbipPlugin", "281474976710656"},
        {Props("iCLIENTusbipPLUGIN", -1), true, "iCLIENTusbipPLUGIN", "18446744073709551615"},
        {Props("IClientUsbipPlugin", kOne - 1), false, "IClientUsbipPlugin", "281474976710655"},
        {Props("IClientUsbipPlugin", "281474976710656"), false, "IClientUsbipPlugin", "0"},
        {Props("IClientUsbipPlugi"), false, "IClientUsbipPlugi", "0", 8},
        {Props(7, kOne), false, "", "281474976710656", 8},
        {Props(), false, "", "0", 4},
    };
    const CRefObj<IXJModData> text(new CXJModData("12345678")), number(new CXJModData(7));
    EXPECT_TRUE(text->asInt() == 0 && number->asString() == nullptr) << "only for their type";
    for (const auto& row : rows) {
        const std::string create = "[file_client] file_client_create ";
        std::vector<LogLine> lines{
            {8, create + "interface " + row.name + "  version " + row.version}};
        if (row.refusal == 4) lines.push_back({4, create + "invalid property!"});
        if (row.refusal == 8) lines.push_back({8, create + "invalid interface " + row.name});
        runtime_.Forget(), out = this;
        EXPECT_EQ(Create(row.props.Get(), &out), row.made);
        EXPECT_EQ(runtime_.Lines(), lines);
        EXPECT_EQ(row.props->AddRef(), 2) << "the factory keeps no reference";
        row.props->Release();
        EXPECT_EQ(out != this, row.made);
        EXPECT_TRUE(!row.made || static_cast<IClientUsbipPlugin*>(out)->Release() == 0);
    }
}

}  // namespace
