// The library as a host sees it that was compiled long ago by somebody else: bytes at offsets and
// operations at slots of tables. The module's headers are left out on purpose: a change there that
// moves a slot has to fail here.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "Slots.h"

namespace {

// --- objects made by hand, for the module to call ---

using Slot = void (*)();

struct Table;

struct Object {
    const void* slots;  // the table's address point, as a compiler would store it
    const char* name;
    long references = 1;
    std::uintptr_t unexpected = 0;  // what a slot answers that nobody should call

    Object(const Table& table, const char* the_name);
};

template <int number>
std::uintptr_t unexpected(void* self) {
    const auto* object = static_cast<Object*>(self);
    ADD_FAILURE() << object->name << ": slot " << number << " was called";
    return object->unexpected;
}

constexpr int kSlots = 16;  // more than any object has: an operation too many is noticed

// In front of a table, in words. The three words below the type information belong to the three
// operations of the counting interface.
constexpr int kCountingAt = -6;

struct Table {
    // Offsets of virtual calls and bases, offset to top, type information. Zero everywhere: the
    // counting interface, a virtual base, is where the object is.
    std::intptr_t before[16] = {};
    Slot slots[kSlots];

    Table(std::initializer_list<std::pair<int, Slot>> operations) {
        FillUnexpected(std::make_integer_sequence<int, kSlots>());
        for (const auto& [number, operation] : operations)
            slots[number] = operation;
    }

  private:
    template <int... number>
    void FillUnexpected(std::integer_sequence<int, number...>) {
        ((slots[number] = reinterpret_cast<Slot>(&unexpected<number>)), ...);
    }
};

Object::Object(const Table& table, const char* the_name) : slots(table.slots), name(the_name) {}

template <typename Result, typename... Args>
std::pair<int, Slot> At(int number, Result (*operation)(Args...)) {
    return {number, reinterpret_cast<Slot>(operation)};
}

long add_ref(void* self) {
    return ++static_cast<Object*>(self)->references;
}

// The test keeps one reference of its own, so the module can never drop the last one.
long release(void* self) {
    auto* object = static_cast<Object*>(self);
    EXPECT_GT(object->references, 1) << object->name << " is released once too often";
    return --object->references;
}

const Table kCounting{At(2, add_ref), At(3, release)};

struct Value : Object {
    static const Table kTable;
    std::uint32_t type;
    const char* text = nullptr;
    std::int64_t number = 0;

    explicit Value(const char* value) : Object(kTable, "text"), type(4), text(value) {}
    explicit Value(std::int64_t value) : Object(kTable, "integer"), type(2), number(value) {}

    static std::uint32_t Type(void* self) { return static_cast<Value*>(self)->type; }
    static const char* AsString(void* self) { return static_cast<Value*>(self)->text; }
    static std::int64_t AsInt(void* self) { return static_cast<Value*>(self)->number; }
};
const Table Value::kTable{At(2, add_ref), At(3, release), At(4, &Value::Type),
                          At(7, &Value::AsString), At(10, &Value::AsInt)};

struct PropertySet : Object {
    static const Table kTable;
    Value interface_name{"IClientUsbipPlugin"};
    Value version{std::int64_t{1} << 48};

    PropertySet() : Object(kTable, "property set") {}

    static void* GetProperty(void* self, const char* key) {
        auto* set = static_cast<PropertySet*>(self);
        if (std::strcmp(key, "xj.module.interface.name") == 0) return &set->interface_name;
        if (std::strcmp(key, "xj.module.version") == 0) return &set->version;
        ADD_FAILURE() << "nobody knows the property " << key;
        return nullptr;
    }
};
const Table PropertySet::kTable{At(2, add_ref), At(3, release), At(4, &PropertySet::GetProperty)};

struct Runtime : Object {  // without destructor and counting: four slots
    static const Table kTable;
    std::vector<std::string> lines;  // the module logs from one thread at a time

    Runtime() : Object(kTable, "runtime") {}

    static void Log(void* self, int level, const char* text) {
        static_cast<Runtime*>(self)->lines.push_back(std::to_string(level) + " " + text);
    }
};
const Table Runtime::kTable{At(0, &Runtime::Log)};

// Its counting interface is elsewhere, as a compiler may place it. Slots 2 and 3 are then not used.
struct Stream : Object {
    Table table;
    Object counting;
    std::string inbound;
    std::string outbound;

    Stream()
        : Object(table, "stream"),
          table{At(5, &Stream::Read), At(6, &Stream::Write)},
          counting(kCounting, "stream's counting interface") {
        unexpected = 1;  // a failure, or a wrong Read would be tried for ever
        std::end(table.before)[kCountingAt] =
            reinterpret_cast<std::intptr_t>(&counting) - reinterpret_cast<std::intptr_t>(this);
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    static int Read(void* self, void* to, unsigned long size, unsigned long* got,
                    unsigned long reserved) {
        std::string& bytes = static_cast<Stream*>(self)->inbound;
        EXPECT_EQ(reserved, 0U);
        if (bytes.empty()) return 1;
        *got = bytes.copy(static_cast<char*>(to), size);
        bytes.erase(0, *got);
        return 0;
    }
    static int Write(void* self, const void* from, unsigned long size, unsigned long* written,
                     unsigned long reserved) {
        EXPECT_EQ(reserved, 0U);
        static_cast<Stream*>(self)->outbound.append(static_cast<const char*>(from), size);
        *written = size;
        return 0;
    }
};
// --- the module, called by number ---

// A class with a destructor is returned through a hidden address, as the module's smart pointers.
struct Returned {
    void* pointer;
    ~Returned() {}  // NOLINT(modernize-use-equals-default): a trivial one would change the call
};

class AbiTest : public testing::Test {
  protected:
    void SetUp() override {
        const char* given = std::getenv("XJ_MODULE");
        library_ = dlopen(given != nullptr ? given : XJ_MODULE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library_, nullptr) << dlerror();
        entry_ = reinterpret_cast<const void* (*)()>(dlsym(library_, "xjmod_get_entrypoint"));
        ASSERT_NE(entry_, nullptr);
        descriptor_ = entry_();
    }
    void TearDown() override {
        if (library_ != nullptr) dlclose(library_);
    }

    bool Init() { return Load<bool (*)(void*)>(descriptor_, 16)(&runtime_); }
    void Uninit() { Load<void (*)()>(descriptor_, 24)(); }
    bool Create() { return Load<bool (*)(void*, void**)>(descriptor_, 32)(&properties_, &plugin_); }

    void* library_ = nullptr;
    const void* (*entry_)() = nullptr;
    const void* descriptor_ = nullptr;
    Runtime runtime_;
    PropertySet properties_;
    Stream stream_;
    void* plugin_ = nullptr;
};

TEST_F(AbiTest, Descriptor) {
    EXPECT_EQ(entry_(), descriptor_);
    EXPECT_EQ(Load<std::uint64_t>(descriptor_, 0), 0x0001000000000000U);
    EXPECT_STREQ(Load<const char*>(descriptor_, 8), "xj-client-usbip");
    const char* build_time = Load<const char*>(descriptor_, 40);
    EXPECT_TRUE(std::regex_match(
        build_time, std::regex("[A-Z][a-z]{2} [ 123][0-9] [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}")))
        << build_time;
    for (int offset = 48; offset < 112; ++offset) {
        EXPECT_EQ(Load<char>(descriptor_, offset), 0) << "at " << offset;
    }
}

TEST_F(AbiTest, FactoryReadsThePropertiesAndKeepsNothing) {
    ASSERT_TRUE(Init());
    ASSERT_TRUE(Create());
    EXPECT_EQ(runtime_.lines,
              (std::vector<std::string>{"8 usbip_client_init",
                                        "8 [file_client] file_client_create interface "
                                        "IClientUsbipPlugin  version 281474976710656"}));
    EXPECT_EQ(properties_.references, 1);
    EXPECT_EQ(properties_.interface_name.references, 1);
    EXPECT_EQ(properties_.version.references, 1);
    EXPECT_EQ(Call<long>(plugin_, 3), 0);
    Uninit();
}

class AbiPluginTest : public AbiTest {
  protected:
    void SetUp() override {
        AbiTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(Init());
        ASSERT_TRUE(Create());
        runtime_.lines.clear();
    }
    void TearDown() override {
        if (plugin_ != nullptr) Call<long>(plugin_, 3);
        if (descriptor_ != nullptr) Uninit();
        AbiTest::TearDown();
    }

    const std::vector<std::string> exit_lines_ = {
        "1 [usbipclient] ExitInstance",         "8 [usbipclient] start to clear devs",
        "8 [usbipclient] finish to clear devs", "8 [usbipclient] start to stop send thread",
        "8 [usbipclient] ExitInstance finish",
    };
};

TEST_F(AbiPluginTest, Counts) {
    EXPECT_EQ(Call<long>(plugin_, 2), 2);
    EXPECT_EQ(Call<long>(plugin_, 2), 3);
    EXPECT_EQ(Call<long>(plugin_, 3), 2);
    EXPECT_EQ(Call<long>(plugin_, 3), 1);
    EXPECT_EQ(runtime_.lines, std::vector<std::string>{});
}

TEST_F(AbiPluginTest, Session) {
    EXPECT_EQ(Call<long>(plugin_, 5, static_cast<void*>(&stream_)), 0);
    EXPECT_EQ(stream_.counting.references, 2);
    EXPECT_EQ(runtime_.lines, std::vector<std::string>{});

    // A version request, then the end of the stream.
    stream_.inbound = std::string("\x0C\0\0\0\x0B\0\0\0\x04\0\0\0\x01\0\0\0\x01\0\0\0", 20);
    EXPECT_EQ(Call<long>(plugin_, 6), 1);
    EXPECT_EQ(stream_.outbound,
              std::string("\x0C\0\0\0\x0B\0\0\0\x04\0\0\0\x02\0\0\0\x03\0\0\0", 20));
    ASSERT_GE(runtime_.lines.size(), 2U);
    EXPECT_EQ(runtime_.lines.front(), "1 [usbipclient] Run start");
    EXPECT_EQ(runtime_.lines.back(), "1 [usbipclient] Run return");

    runtime_.lines.clear();
    EXPECT_EQ(Call<long>(plugin_, 7), 0);
    EXPECT_EQ(runtime_.lines, exit_lines_);
    EXPECT_EQ(stream_.counting.references, 2);

    runtime_.lines.clear();
    EXPECT_EQ(Call<long>(std::exchange(plugin_, nullptr), 3), 0);
    EXPECT_EQ(runtime_.lines, exit_lines_);
    EXPECT_EQ(stream_.counting.references, 1);
}

TEST_F(AbiPluginTest, OperationsThatOnlyAnswer) {
    Call<long>(plugin_, 5, static_cast<void*>(&stream_));
    EXPECT_EQ(Call<long>(plugin_, 4, L"anything"), 0);
    EXPECT_EQ(Call<long>(plugin_, 8, "anything", 1), 0);
    EXPECT_EQ(Call<long>(plugin_, 9), 0);
    Call<void>(plugin_, 11, static_cast<void*>(&stream_));

    void* volatile storage = this;
    new (const_cast<void**>(&storage)) Returned(Call<Returned>(plugin_, 10));
    EXPECT_EQ(storage, nullptr) << "an empty reference, and not the stream";

    EXPECT_EQ(stream_.counting.references, 2);
    EXPECT_EQ(stream_.outbound, "");
    EXPECT_EQ(runtime_.lines, std::vector<std::string>{});
}

// A host converts the pointer to the interfaces behind it by the offsets in front of the table.
TEST_F(AbiPluginTest, InterfacesBehindVirtualBases) {
    constexpr int kPluginLifeAt = -14;       // below the words of its own seven operations
    constexpr int kModuleInterfaceAt = -15;  // no operation of its own in this table
    EXPECT_EQ(OffsetAt(plugin_, kCountingAt), 0);
    EXPECT_EQ(OffsetAt(plugin_, kPluginLifeAt), 0);
    const std::ptrdiff_t offset = OffsetAt(plugin_, kModuleInterfaceAt);
    ASSERT_GT(offset, 0) << "behind the object's own fields";

    void* module_interface = static_cast<char*>(plugin_) + offset;
    EXPECT_EQ(OffsetAt(module_interface, kCountingAt), -offset)
        << "counting happens at the one counting interface";
    void* out = this;
    EXPECT_EQ(Call<long>(module_interface, 4, "anything", &out), 0);
    EXPECT_EQ(out, this);
    EXPECT_EQ(Call<long>(module_interface, 5, "anything", static_cast<void*>(&stream_)), 0);
    EXPECT_EQ(Call<void*>(module_interface, 6, "anything"), nullptr);
    EXPECT_EQ(stream_.counting.references, 1);
    EXPECT_EQ(runtime_.lines, std::vector<std::string>{});
}

}  // namespace
