// A 128-bit universally unique identifier (libuuid).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

class Uuid {
 public:
  using Bytes = std::array<uint8_t, 16>;

  // The nil UUID (all zeros).
  Uuid() = default;
  explicit Uuid(const Bytes& bytes) : bytes_(bytes) {}

  // A new random (version 4) UUID.
  static Uuid random();
  // Parses the 36-character textual form, in either case.
  static std::optional<Uuid> fromString(std::string_view text);

  const Bytes& bytes() const { return bytes_; }
  bool isNil() const;
  // "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string upperString() const;
  std::string lowerString() const;

  friend bool operator==(const Uuid&, const Uuid&) = default;

 private:
  Bytes bytes_{};
};

inline std::string describe(const Uuid& uuid) { return uuid.upperString(); }

}  // namespace orvex
