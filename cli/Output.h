// Results of the command-line tool as data: printed as text by default or as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace quarn::cli {

// A JSON value; objects keep their keys in insertion order.
class Value {
public:
    enum class Kind { Null, Bool, Int, Double, String, Array, Object };

    Value() = default;
    Value(bool b) : m_kind(Kind::Bool), m_bool(b) {}
    Value(int i) : m_kind(Kind::Int), m_int(i) {}
    Value(long long i) : m_kind(Kind::Int), m_int(i) {}
    Value(unsigned int i) : m_kind(Kind::Int), m_int(i) {}
    Value(double d) : m_kind(Kind::Double), m_double(d) {}
    Value(const char* s) : m_kind(Kind::String), m_string(s ? s : "") {}
    Value(std::string s) : m_kind(Kind::String), m_string(std::move(s)) {}

    static Value array() { return Value(Kind::Array); }
    static Value object() { return Value(Kind::Object); }

    Value& push(Value v) {
        m_items.push_back({std::string(), std::move(v)});
        return *this;
    }
    Value& set(const std::string& key, Value v);
    const Value* get(const std::string& key) const;

    Kind kind() const { return m_kind; }
    const std::string& str() const { return m_string; }
    long long integer() const { return m_int; }
    bool boolean() const { return m_bool; }
    const std::vector<std::pair<std::string, Value>>& items() const { return m_items; }

    std::string toJson() const;

private:
    explicit Value(Kind k) : m_kind(k) {}
    void write(std::string* out) const;

    Kind m_kind = Kind::Null;
    bool m_bool = false;
    long long m_int = 0;
    double m_double = 0;
    std::string m_string;
    std::vector<std::pair<std::string, Value>> m_items;
};

std::string jsonEscape(const std::string& s);

}  // namespace quarn::cli
