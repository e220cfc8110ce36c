// The outcome of decoding (or encoding) one unit: its value, or the sense code
// the node answers a malformed unit with.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace snanode::net {

template <class T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT: implicit on purpose
  static Result refused(uint32_t sense) { return Result(Refused{}, sense); }

  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }
  // 0 when the unit was accepted.
  uint32_t sense() const { return sense_; }
  const T &value() const { return *value_; }
  T &value() { return *value_; }
  const T *operator->() const { return &*value_; }
  T *operator->() { return &*value_; }

 private:
  struct Refused {};
  Result(Refused, uint32_t sense) : sense_(sense) {}
  std::optional<T> value_;
  uint32_t sense_ = 0;
};

// For encoders that append to a buffer: 0 when the unit was written, otherwise
// the sense code naming the field that cannot be encoded (nothing is appended).
struct [[nodiscard]] Status {
  uint32_t sense = 0;
  bool ok() const { return sense == 0; }
  explicit operator bool() const { return ok(); }
};

}  // namespace snanode::net
