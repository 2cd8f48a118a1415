// Results of the command-line tool as data: printed as text by default or as JSON.
#include "cli/Output.h"

#include <cmath>
#include <cstdio>

namespace quarn::cli {

Value& Value::set(const std::string& key, Value v) {
    for (auto& item : m_items) {
        if (item.first == key) {
            item.second = std::move(v);
            return *this;
        }
    }
    m_items.push_back({key, std::move(v)});
    return *this;
}

const Value* Value::get(const std::string& key) const {
    for (const auto& item : m_items)
        if (item.first == key) return &item.second;
    return nullptr;
}

std::string jsonEscape(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20 || c == 0x7F) {
                char buf[8];
                snprintf(buf, sizeof(buf), "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

void Value::write(std::string* out) const {
    switch (m_kind) {
    case Kind::Null: *out += "null"; break;
    case Kind::Bool: *out += m_bool ? "true" : "false"; break;
    case Kind::Int: *out += std::to_string(m_int); break;
    case Kind::Double: {
        if (!std::isfinite(m_double)) {
            *out += "null";
            break;
        }
        char buf[32];
        snprintf(buf, sizeof(buf), "%.17g", m_double);
        *out += buf;
        break;
    }
    case Kind::String: *out += jsonEscape(m_string); break;
    case Kind::Array:
    case Kind::Object: {
        const bool obj = m_kind == Kind::Object;
        *out += obj ? "{" : "[";
        bool first = true;
        for (const auto& item : m_items) {
            if (!first) *out += ",";
            first = false;
            if (obj) *out += jsonEscape(item.first) + ":";
            item.second.write(out);
        }
        *out += obj ? "}" : "]";
        break;
    }
    }
}

std::string Value::toJson() const {
    std::string out;
    write(&out);
    return out;
}

}  // namespace quarn::cli
