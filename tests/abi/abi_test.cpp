// The library as a host sees it that was compiled long ago by somebody else: bytes at offsets and
// operations at slots of tables. The module's headers are left out on purpose: a change there that
// moves a slot has to fail here.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace {

// --- fields at offsets and operations at slots, as the Itanium C++ ABI lays them out ---

constexpr int kWord = sizeof(void*);

template <typename T>
T Load(const void* from, int offset) {
    T value;
    std::memcpy(&value, static_cast<const char*>(from) + offset, sizeof value);
    return value;
}

// Calls the operation at `slot` of the table that the object's first word points to. The types
// of result and arguments must be those of the operation, with pointers for references.
template <typename Result, typename... Args>
Result Call(void* object, int slot, Args... args) {
    const void* table = Load<void*>(object, 0);
    return Load<Result (*)(void*, Args...)>(table, slot * kWord)(object, args...);
}

// From the `word`th word in front of the object's table (-1 is the nearest).
std::ptrdiff_t OffsetAt(const void* object, int word) {
    return Load<std::ptrdiff_t>(Load<void*>(object, 0), word * kWord);
}

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
    std::uint32_t type;
    const char* text = nullptr;
    std::int64_t number = 0;

    explicit Value(const char* value) : Object(kTable, "text"), type(4), text(value) {}
    explicit Value(std::int64_t value) : Object(kTable, "integer"), type(2), number(value) {}

    static const Table kTable;
};
const Table Value::kTable{At(2, add_ref), At(3, release),
                          At(
                              4, +[](void* self) { return static_cast<Value*>(self)->type; }),
                          At(
                              7, +[](void* self) { return static_cast<Value*>(self)->text; }),
                          At(
                              10, +[](void* self) { return static_cast<Value*>(self)->number; })};

struct PropertySet : Object {
    Value interface_name{"IClientUsbipPlugin"};
    Value version{std::int64_t{1} << 48};

    PropertySet() : Object(kTable, "property set") {}

    static void* GetProperty(void* self, const char* key) {
        auto* set = static_cast<PropertySet*>(self);
        if (std::strcmp(key, "xj.module.interface.name") == 0) return &set->interface_name;
        EXPECT_STREQ(key, "xj.module.version");
        return &set->version;
    }
    static inline const Table kTable{At(2, add_ref), At(3, release), At(4, GetProperty)};
};

struct Runtime : Object {            // without destructor and counting: four slots
    std::vector<std::string> lines;  // the module logs from one thread at a time

    Runtime() : Object(kTable, "runtime") {}

    static void Log(void* self, int level, const char* text) {
        static_cast<Runtime*>(self)->lines.push_back(std::to_string(level) + " " + text);
    }
    static inline const Table kTable{At(0, Log)};
};

// Its counting interface is elsewhere, as a compiler may place it. Slots 2 and 3 are then not used.
struct Stream : Object {
    Table table{At(5, Read), At(6, Write)};
    Object counting{kCounting, "stream's counting interface"};
    std::string inbound, outbound;

    Stream() : Object(table, "stream") {
        unexpected = 1;  // a failure, or a wrong Read would be tried for ever
        std::end(table.before)[kCountingAt] =
            reinterpret_cast<std::intptr_t>(&counting) - reinterpret_cast<std::intptr_t>(this);
    }

    static int Read(void* self, char* to, unsigned long size, unsigned long* got, unsigned long) {
        std::string& bytes = static_cast<Stream*>(self)->inbound;
        *got = bytes.copy(to, size);
        bytes.erase(0, *got);
        return *got == 0 ? 1 : 0;
    }
    static int Write(void* self, const char* from, unsigned long size, unsigned long* written,
                     unsigned long reserved) {
        EXPECT_EQ(reserved, 0U);
        static_cast<Stream*>(self)->outbound.append(from, *written = size);
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
        auto* entry = reinterpret_cast<const void* (*)()>(dlsym(library_, "xjmod_get_entrypoint"));
        ASSERT_NE(entry, nullptr);
        descriptor_ = entry();
    }
    void TearDown() override {
        if (library_ != nullptr) dlclose(library_);
    }

    // Made with one reference, and the runtime set.
    void Create() {
        ASSERT_TRUE(Load<bool (*)(void*)>(descriptor_, 16)(&runtime_));
        ASSERT_TRUE(Load<bool (*)(void*, void**)>(descriptor_, 32)(&properties_, &plugin_));
    }
    // The last line since the last call.
    std::string LastLine() {
        const std::vector<std::string> lines = std::exchange(runtime_.lines, {});
        return lines.empty() ? "" : lines.back();
    }

    void* library_ = nullptr;
    const void* descriptor_ = nullptr;
    Runtime runtime_;
    PropertySet properties_;
    Stream stream_;
    void* plugin_ = nullptr;
};

TEST_F(AbiTest, Descriptor) {
    EXPECT_EQ(Load<std::uint64_t>(descriptor_, 0), 0x0001000000000000U);
    EXPECT_STREQ(Load<const char*>(descriptor_, 8), "xj-client-usbip");
    const char* build_time = Load<const char*>(descriptor_, 40);
    std::tm built{};
    const char* rest = strptime(build_time, "%b %e %Y %H:%M:%S", &built);
    EXPECT_TRUE(rest != nullptr && *rest == '\0') << build_time;
    for (int offset = 48; offset < 112; ++offset)
        EXPECT_EQ(Load<char>(descriptor_, offset), 0) << "at " << offset;
}

TEST_F(AbiTest, Session) {
    Create();
    EXPECT_EQ(runtime_.lines.front(), "8 usbip_client_init");
    EXPECT_EQ(
        LastLine(),
        "8 [file_client] file_client_create interface IClientUsbipPlugin  version 281474976710656");
    for (const Object* read :
         {static_cast<Object*>(&properties_), static_cast<Object*>(&properties_.interface_name),
          static_cast<Object*>(&properties_.version)})
        EXPECT_EQ(read->references, 1) << read->name;
    EXPECT_EQ(Call<long>(plugin_, 2), 2);
    EXPECT_EQ(Call<long>(plugin_, 3), 1);

    EXPECT_EQ(Call<long>(plugin_, 5, &stream_), 0);
    EXPECT_EQ(stream_.counting.references, 2);
    EXPECT_EQ(LastLine(), "");
    // A version request, then the end of the stream.
    stream_.inbound = std::string("\x0C\0\0\0\x0B\0\0\0\x04\0\0\0\x01\0\0\0\x01\0\0\0", 20);
    EXPECT_EQ(Call<long>(plugin_, 6), 1);
    EXPECT_EQ(stream_.outbound,
              std::string("\x0C\0\0\0\x0B\0\0\0\x04\0\0\0\x02\0\0\0\x03\0\0\0", 20));
    EXPECT_EQ(LastLine(), "1 [usbipclient] Run return");
    EXPECT_EQ(Call<long>(plugin_, 7), 0);
    EXPECT_EQ(LastLine(), "8 [usbipclient] ExitInstance finish");
    EXPECT_EQ(stream_.counting.references, 2);
    EXPECT_EQ(Call<long>(plugin_, 3), 0);
    EXPECT_EQ(LastLine(), "8 [usbipclient] ExitInstance finish");
    EXPECT_EQ(stream_.counting.references, 1);
    Load<void (*)()>(descriptor_, 24)();
}

// A host converts the pointer to the interfaces behind it by the offsets in front of the table.
TEST_F(AbiTest, OperationsThatOnlyAnswer) {
    Create();
    Call<long>(plugin_, 5, &stream_);
    LastLine();
    EXPECT_EQ(Call<long>(plugin_, 4, L"anything"), 0);
    EXPECT_EQ(Call<long>(plugin_, 8, "anything", 1), 0);
    EXPECT_EQ(Call<long>(plugin_, 9), 0);
    Call<void>(plugin_, 11, &stream_);
    void* volatile storage = this;
    new (const_cast<void**>(&storage)) Returned(Call<Returned>(plugin_, 10));
    EXPECT_EQ(storage, nullptr) << "an empty reference, and not the stream";

    constexpr int kPluginLifeAt = -14;       // below the words of its own seven operations
    constexpr int kModuleInterfaceAt = -15;  // no operation of its own in this table
    EXPECT_EQ(OffsetAt(plugin_, kCountingAt), 0);
    EXPECT_EQ(OffsetAt(plugin_, kPluginLifeAt), 0);
    const std::ptrdiff_t offset = OffsetAt(plugin_, kModuleInterfaceAt);
    ASSERT_GT(offset, 0) << "behind the object's own fields";
    void* module_interface = static_cast<char*>(plugin_) + offset;
    EXPECT_EQ(OffsetAt(module_interface, kCountingAt), -offset) << "counting is done in one place";
    void* out = this;
    EXPECT_EQ(Call<long>(module_interface, 4, "anything", &out), 0);
    EXPECT_EQ(out, this);
    EXPECT_EQ(Call<long>(module_interface, 5, "anything", &stream_), 0);
    EXPECT_EQ(Call<void*>(module_interface, 6, "anything"), nullptr);

    EXPECT_EQ(stream_.counting.references, 2);
    EXPECT_EQ(LastLine() + stream_.outbound, "");
    Call<long>(plugin_, 3);
    Load<void (*)()>(descriptor_, 24)();
}

}  // namespace
