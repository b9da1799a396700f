// Type codes and a copyable holder of a value of any type, checked without RTTI.
//
// The host and the library both compile these templates (the host writes PelvAny values
// into parameter containers that the library reads), so they live in the shared headers.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

class PelvTypeInfo {
 public:
  // A compile-time text that names T uniquely within the program.
  template <class T>
  static constexpr std::string_view NameDetail() {
    return __PRETTY_FUNCTION__;
  }
  // Equal for equal types within one build; never stored or compared across processes.
  template <class T>
  static uint64_t HashCode() {
    static const uint64_t code = std::hash<std::string_view>{}(NameDetail<T>());
    return code;
  }
};

class PelvAny {
 public:
  class AnyTypeBase {
   public:
    virtual ~AnyTypeBase() = default;
    virtual uint64_t Type() const = 0;
    virtual std::shared_ptr<AnyTypeBase> Clone() const = 0;
  };

  template <class T>
  class AnyTypeDervied final : public AnyTypeBase {
   public:
    explicit AnyTypeDervied(T value) : m_value(std::move(value)) {}
    uint64_t Type() const override { return PelvTypeInfo::HashCode<T>(); }
    std::shared_ptr<AnyTypeBase> Clone() const override {
      return std::make_shared<AnyTypeDervied<T>>(m_value);
    }
    T m_value;
  };

  PelvAny() = default;
  template <class T, class = std::enable_if_t<!std::is_same_v<std::decay_t<T>, PelvAny>>>
  PelvAny(T&& value)  // NOLINT(google-explicit-constructor): a holder converts from its value
      : m_holder(std::make_shared<AnyTypeDervied<std::decay_t<T>>>(std::forward<T>(value))) {}
  // Copies never share a value.
  PelvAny(const PelvAny& other) : m_holder(other.m_holder ? other.m_holder->Clone() : nullptr) {}
  PelvAny& operator=(const PelvAny& other) {
    if (this != &other) {
      m_holder = other.m_holder ? other.m_holder->Clone() : nullptr;
    }
    return *this;
  }
  PelvAny(PelvAny&&) noexcept = default;
  PelvAny& operator=(PelvAny&&) noexcept = default;
  ~PelvAny() = default;

  uint64_t Type() const { return m_holder ? m_holder->Type() : PelvTypeInfo::HashCode<void>(); }

  template <class T>
  friend T* AnyCast(PelvAny* any);

 private:
  std::shared_ptr<AnyTypeBase> m_holder;
};

// The held T, or null when any is null or holds another type.
template <class T>
T* AnyCast(PelvAny* any) {
  if (any == nullptr || !any->m_holder || any->m_holder->Type() != PelvTypeInfo::HashCode<T>()) {
    return nullptr;
  }
  return &static_cast<PelvAny::AnyTypeDervied<T>*>(any->m_holder.get())->m_value;
}

template <class T>
const T* AnyCast(const PelvAny* any) {
  return AnyCast<T>(const_cast<PelvAny*>(any));
}

// The held T by value, or a value-initialised T when the types differ or any is empty.
template <class T>
T AnyCast(const PelvAny& any) {
  const T* value = AnyCast<T>(&any);
  return value != nullptr ? *value : T{};
}
