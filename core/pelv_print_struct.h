// One-line text of a plain record for information logs: "{a-b-{c-d}-e}".
#pragma once

#include <array>
#include <boost/pfr.hpp>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Pelv {

namespace detail {

template <class T>
void PrintValue(std::ostringstream& out, const T& value);

template <class T>
void PrintFields(std::ostringstream& out, const T& record) {
  out << '{';
  bool first = true;
  boost::pfr::for_each_field(record, [&](const auto& field) {
    if (!first) {
      out << '-';
    }
    first = false;
    PrintValue(out, field);
  });
  out << '}';
}

template <class T>
struct IsCharArray : std::false_type {};
template <size_t N>
struct IsCharArray<std::array<char, N>> : std::true_type {};

template <class T>
void PrintValue(std::ostringstream& out, const T& value) {
  if constexpr (IsCharArray<T>::value) {
    out << std::string_view(value.data(), strnlen(value.data(), value.size()));
  } else if constexpr (std::is_class_v<T> && std::is_aggregate_v<T>) {
    PrintFields(out, value);
  } else if constexpr (std::is_pointer_v<T>) {
    out << reinterpret_cast<const void*>(value);  // callbacks print as addresses
  } else if constexpr (std::is_same_v<T, unsigned char> || std::is_same_v<T, signed char>) {
    out << static_cast<int>(value);  // flags and small numbers, not characters
  } else {
    out << value;
  }
}

}  // namespace detail

// Members are found from the record's definition at compile time; records must be
// aggregates without C array members (text fields are std::array<char, N>, printed as text).
template <class T>
std::string PrintStruct(const T& record) {
  std::ostringstream out;
  detail::PrintFields(out, record);
  return out.str();
}

}  // namespace Pelv
