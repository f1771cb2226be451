#include "platform/Toggle/Toggle.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace Toggle {

namespace {
constexpr const char* kDefaultDirectory = "/etc/bgpcommon/toggles";
constexpr std::size_t kMaxFileSize = 1 << 20;

bool safeFileName(std::string_view name) {
  if (name.empty() || name.front() == '/') return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string_view::npos) end = name.size();
    std::string_view part = name.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = end + 1;
  }
  return true;
}
}  // namespace

std::string toggleDirectory() {
  const char* env = std::getenv("BGPCOMMON_TOGGLE_DIR");
  return env != nullptr && *env != '\0' ? std::string(env) : std::string(kDefaultDirectory);
}

bool toggleStateFromJson(std::string_view json, std::string_view toggleName, bool defaultState) {
  nlohmann::json doc = nlohmann::json::parse(json.begin(), json.end(), nullptr, /*allow_exceptions=*/false);
  if (!doc.is_object()) return defaultState;
  auto it = doc.find(std::string(toggleName));
  if (it == doc.end()) return defaultState;
  if (it->is_boolean()) return it->get<bool>();
  if (it->is_object()) {
    auto enabled = it->find("enabled");
    if (enabled != it->end() && enabled->is_boolean()) return enabled->get<bool>();
  }
  return defaultState;
}

bool getToggleState(std::string_view toggleName, std::string_view fileName, bool defaultState) {
  if (!safeFileName(fileName)) return defaultState;
  std::ifstream in(toggleDirectory() + "/" + std::string(fileName), std::ios::binary);
  if (!in) return defaultState;
  std::string text(kMaxFileSize + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad() || static_cast<std::size_t>(in.gcount()) > kMaxFileSize) return defaultState;
  text.resize(static_cast<std::size_t>(in.gcount()));
  return toggleStateFromJson(text, toggleName, defaultState);
}

}  // namespace Toggle
