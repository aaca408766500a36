// The descriptor, the factory and logging.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "base/ObjectMonitor.h"
#include "module/XJModLog.h"
#include "module/XJModRuntime.h"
#include "support/FakeHost.h"

namespace {

class ModuleTest : public testing::Test {
  protected:
    ~ModuleTest() override { module_->uninit(); }

    bool Init() { return module_->init(static_cast<IXJModRuntime*>(&runtime_)); }

    xjmod_entrypoint* const module_ = xjmod_get_entrypoint();
    FakeRuntime runtime_;
};

TEST_F(ModuleTest, Descriptor) {
    EXPECT_EQ(xjmod_get_entrypoint(), module_);
    EXPECT_EQ(module_->version, 0x0001000000000000U);
    EXPECT_STREQ(module_->name, "xj-client-usbip");
    for (const std::uint64_t word : module_->reserved)
        EXPECT_EQ(word, 0U);
    char month[4] = "";
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    EXPECT_EQ(std::sscanf(module_->build_time, "%3s %d %d %d:%d:%d", month, &day, &year, &hour,
                          &minute, &second),
              6)
        << module_->build_time;
}

TEST_F(ModuleTest, LinesReachTheHostOnlyBetweenInitAndUninit) {
    module_->uninit();
    XJModLog(1, "before");
    EXPECT_FALSE(module_->init(nullptr));
    ASSERT_TRUE(Init());
    XJModLog(1, "[usbipclient] device end %d", 3);
    module_->uninit();
    XJModLog(1, "after");
    EXPECT_EQ(runtime_.Lines(),
              (std::vector<LogLine>{{8, "usbip_client_init"}, {1, "[usbipclient] device end 3"}}));
}

TEST_F(ModuleTest, NullInitKeepsTheRuntime) {
    ASSERT_TRUE(Init());
    EXPECT_FALSE(module_->init(nullptr));
    XJModLog(1, "still here");
    EXPECT_EQ(runtime_.Count({1, "still here"}), 1);
}

TEST_F(ModuleTest, RuntimeOperationsAreForwarded) {
    CXJModRuntime* runtime = CSingleton_T<CXJModRuntime>::Instance();
    EXPECT_EQ(CSingleton_T<CXJModRuntime>::Instance(), runtime);
    EXPECT_FALSE(runtime->GetConfig(false, "", "", nullptr, ""));
    EXPECT_FALSE(runtime->SaveConfig(false, "", "", ""));
    EXPECT_EQ(runtime->GetEnv("x"), nullptr);
    ASSERT_TRUE(Init());
    EXPECT_TRUE(runtime->GetConfig(false, "", "", nullptr, ""));
    EXPECT_TRUE(runtime->SaveConfig(false, "", "", ""));
    EXPECT_EQ(runtime->GetEnv("x"), &runtime_);
    EXPECT_TRUE(module_->init(static_cast<IXJModRuntime*>(runtime))) << "not stored: would recurse";
    XJModLog(1, "once");
    EXPECT_EQ(runtime_.Count({1, "once"}), 1);
}

TEST_F(ModuleTest, LongLinesAreCut) {
    ASSERT_TRUE(Init());
    runtime_.Forget();
    const std::string text(5000, 'x');
    for (const std::size_t size : {4094UL, 4095UL, 4096UL, 5000UL}) {
        XJModLog(8, "%s", text.substr(0, size).c_str());
    }
    const std::vector<LogLine> lines = runtime_.Lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].text.size(), 4094U);
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(lines[static_cast<std::size_t>(i)].text.size(), 4095U);
}

TEST_F(ModuleTest, HostMayLogBack) {
    std::atomic<int> depth{0};
    runtime_.on_log = [&] {
        if (++depth <= 3) XJModLog(1, "again");
    };
    ASSERT_TRUE(Init());
    EXPECT_EQ(runtime_.Count({1, "again"}), 3);
}

// The host's Log is never entered by two threads, nor after uninit has returned.
TEST_F(ModuleTest, UninitWhileOthersLog) {
    int inside = 0;  // unguarded: only the promise keeps it in order
    std::atomic<bool> attached{false}, late{false}, stop{false};
    runtime_.on_log = [&] {
        ++inside;
        if (!attached) late = true;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (!stop)
                XJModLog(1, "busy");
        });
    }
    EXPECT_TRUE(Eventually([&] {  // until the threads have really met many a runtime
        attached = true;
        Init();
        XJModLog(1, "here");
        module_->uninit();
        attached = false;
        return runtime_.Count({1, "busy"}) >= 100 && runtime_.Count({1, "here"}) >= 50;
    }));
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(late);
    EXPECT_EQ(inside, static_cast<int>(runtime_.Lines().size()));
}

// --- the factory ---

class FactoryTest : public ModuleTest {
  protected:
    FactoryTest() { Init(), runtime_.Forget(); }

    // Returns whether a plug-in was made; releases it.
    bool Create() {
        void* out = this;  // written only on success
        const bool made = module_->create(static_cast<IXJModPropertySet*>(props_.Get()), &out);
        EXPECT_EQ(props_->AddRef(), 2) << "the factory keeps no reference";
        props_->Release();
        EXPECT_EQ(out != this, made);
        if (made) {
            EXPECT_EQ(static_cast<IClientUsbipPlugin*>(out)->Release(), 0);
        }
        return made;
    }

    CRefObj<FakePropertySet> props_{new FakePropertySet};
};

TEST_F(FactoryTest, Properties) {
    using std::string_view;
    const struct {
        const char* name;  // null: no such property
        std::int64_t version;
        bool made;
        LogLine last;  // empty: none but the first
    } cases[] = {
        {"IClientUsbipPlugin", 0x0001000000000000, true, {}},
        {"iclientusbipplugin", 0x0001000000000000, true, {}},
        {"ICLIENTUSBIPPLUGIN", 0x0002000000000000, true, {}},
        {"IClientUsbipPlugin", -1, true, {}},
        {"IClientUsbipPlugin", 0x0000FFFFFFFFFFFF, false, {}},
        {"IClientUsbipPlugin", 0, false, {}},
        {"IClientUsbipPlugi",
         0x0001000000000000,
         false,
         {8, "[file_client] file_client_create invalid interface IClientUsbipPlugi"}},
        {"IClientUsbipPlugin2",
         0,
         false,
         {8, "[file_client] file_client_create invalid interface IClientUsbipPlugin2"}},
        {nullptr,
         0x0001000000000000,
         false,
         {8, "[file_client] file_client_create invalid interface "}},
        {nullptr, 0, false, {4, "[file_client] file_client_create invalid property!"}},
        {"", 0, false, {4, "[file_client] file_client_create invalid property!"}},
    };
    for (const auto& c : cases) {
        props_ = new FakePropertySet;
        runtime_.Forget();
        if (c.name != nullptr) props_->Set(kPropertyInterfaceName, string_view(c.name));
        props_->Set(kPropertyVersion, c.version);
        const LogLine asked{8, std::string("[file_client] file_client_create interface ") +
                                   (c.name != nullptr ? c.name : "") + "  version " +
                                   std::to_string(static_cast<std::uint64_t>(c.version))};
        EXPECT_EQ(Create(), c.made) << asked;
        const std::vector<LogLine> lines = runtime_.Lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], asked);
        if (c.made) continue;
        EXPECT_EQ(lines.size(), c.last.level == 0 ? 1U : 2U) << asked;
        if (c.last.level != 0) {
            EXPECT_EQ(lines.back(), c.last);
        }
    }
}

TEST_F(FactoryTest, PropertiesOfTheWrongTypeCountAsMissing) {
    props_->Set(kPropertyInterfaceName, std::string_view("IClientUsbipPlugin"));
    props_->Set(kPropertyVersion, std::string_view("281474976710656"));
    EXPECT_FALSE(Create());
    EXPECT_EQ(runtime_.Lines().size(), 1U);
    props_->Set(kPropertyInterfaceName, std::int64_t{7});
    runtime_.Forget();
    EXPECT_FALSE(Create());
    EXPECT_EQ(runtime_.Lines(4).size(), 1U);
}

TEST_F(FactoryTest, NullArguments) {
    void* out = nullptr;
    const LogLine invalid{8, "[file_client] file_client_create invalid param"};
    EXPECT_FALSE(module_->create(nullptr, &out));
    EXPECT_FALSE(module_->create(static_cast<IXJModPropertySet*>(props_.Get()), nullptr));
    EXPECT_EQ(runtime_.Lines(), (std::vector<LogLine>{invalid, invalid}));
}

TEST(Value, AnswersOnlyForItsType) {
    const CRefObj<IXJModData> text(new CXJModData(std::string_view("abc")));
    EXPECT_EQ(text->type(), 4U);
    EXPECT_STREQ(text->asString(), "abc");
    EXPECT_EQ(text->asInt(), 0);
    const CRefObj<IXJModData> number(new CXJModData(std::int64_t{-5}));
    EXPECT_EQ(number->type(), 2U);
    EXPECT_EQ(number->asString(), nullptr);
    EXPECT_EQ(number->asInt(), -5);
}

}  // namespace
