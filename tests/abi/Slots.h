// Fields at offsets and operations at slots, as the Itanium C++ ABI lays objects and tables out.
#pragma once

#include <cstddef>
#include <cstring>

inline constexpr int kWord = sizeof(void*);

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
inline std::ptrdiff_t OffsetAt(const void* object, int word) {
    return Load<std::ptrdiff_t>(Load<void*>(object, 0), word * kWord);
}
