// The value class behind IXJModData, for hosts that have none of their own.
#pragma once

#include <cstring>
#include <string_view>
#include <vector>

#include "xj-client-usbip/HostAbi.h"

class CXJModData : public IXJModData, protected CReference {
  public:
    explicit CXJModData(std::int64_t value) : m_type(TypeInt), m_value(sizeof value) {
        std::memcpy(m_value.data(), &value, sizeof value);
    }
    explicit CXJModData(std::string_view text)
        : m_type(TypeText), m_value(text.begin(), text.end()) {
        m_value.push_back('\0');
    }

    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }

    std::uint32_t type() override { return m_type; }

    const char* asString() override {
        return m_type == TypeText && !m_value.empty() ? m_value.data() : nullptr;
    }

    std::int64_t asInt() override {
        std::int64_t value = 0;
        if (m_type == TypeInt && m_value.size() >= sizeof value) {
            std::memcpy(&value, m_value.data(), sizeof value);
        }
        return value;
    }

    void Reserved1() override {}
    void Reserved2() override {}
    void Reserved3() override {}
    void Reserved4() override {}

  private:
    std::uint32_t m_type;
    std::vector<char> m_value;
};
