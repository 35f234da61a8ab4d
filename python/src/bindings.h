// What the parts of the native module share.
#pragma once

#include <pybind11/pybind11.h>

#include <QueltLibrary/Data.h>
#include <QueltLibrary/UUID.h>
#include <optional>
#include <stdexcept>
#include <string>

namespace quelt {

// Bluetooth is not there or does not come up (quelt.Unavailable).
struct Unavailable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

pybind11::bytes toBytes(const qlt::Data& data);
std::string lower(std::string text);
std::string lowerUUID(const qlt::UUID& uuid);
// A UUID's text, or the short form of the Bluetooth base ("180d").
std::optional<qlt::UUID> parseUUID(const std::string& text);

void bindSim(pybind11::module_ sim);

}  // namespace quelt
