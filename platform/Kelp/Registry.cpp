#include "platform/Kelp/Registry.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>

#include <fmt/format.h>

namespace Kelp {

namespace {
struct Registry {
  std::mutex mutex;
  std::map<std::string_view, const TypeInfo*, std::less<>> types;
  std::vector<const TypeModule*> modules;
};
Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: modules may unregister during exit
  return *r;
}
}  // namespace

const AttrInfo* TypeInfo::attribute(std::string_view attrName) const {
  for (const AttrInfo& a : attributes) {
    if (a.name == attrName) return &a;
  }
  return nullptr;
}

TypeInfo entityType(std::string_view name, std::span<const std::string_view> attributeNames) {
  TypeInfo t;
  t.name = name;
  t.kind = TypeKind::entity;
  int id = 2;
  for (std::string_view a : attributeNames) t.attributes.push_back({id++, a, AttrKind::field});
  return t;
}

TypeModule::TypeModule(std::string_view moduleName, std::initializer_list<const TypeInfo*> types)
    : name_(moduleName), types_(types) {
  kelpModuleIs(this);
}

TypeModule::~TypeModule() { kelpModuleDel(this); }

void kelpModuleIs(const TypeModule* module) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.modules.push_back(module);
  for (const TypeInfo* t : module->types()) r.types[t->name] = t;
}

void kelpModuleDel(const TypeModule* module) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.modules.erase(std::remove(r.modules.begin(), r.modules.end(), module), r.modules.end());
  for (const TypeInfo* t : module->types()) {
    auto it = r.types.find(t->name);
    if (it != r.types.end() && it->second == t) r.types.erase(it);
  }
}

const TypeInfo* findType(std::string_view qualifiedName) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.types.find(qualifiedName);
  return it == r.types.end() ? nullptr : it->second;
}

const TypeInfo* findType(const std::type_info& cppType) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (const auto& [name, t] : r.types) {
    if (t->cppType != nullptr && *t->cppType == cppType) return t;
  }
  return nullptr;
}

String heldTypeName(const std::any& v) {
  if (!v.has_value()) return "empty";
  if (const TypeInfo* t = findType(v.type())) return String(t->name);
  int status = 0;
  char* demangled = abi::__cxa_demangle(v.type().name(), nullptr, nullptr, &status);
  String name = status == 0 && demangled != nullptr ? String(demangled) : String(v.type().name());
  std::free(demangled);
  return name;
}

std::vector<const TypeInfo*> registeredTypes() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  std::vector<const TypeInfo*> out;
  for (const auto& [name, t] : r.types) out.push_back(t);
  return out;
}

std::vector<const TypeModule*> registeredModules() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  std::vector<const TypeModule*> out = r.modules;
  std::sort(out.begin(), out.end(), [](auto* a, auto* b) { return a->name() < b->name(); });
  return out;
}

namespace detail {
void throwArgumentCount(std::string_view function, std::size_t expected, std::size_t given) {
  throw TypeException(fmt::format("{}() takes {} argument(s), {} given", function, expected, given));
}
void throwArgumentType(std::string_view function, std::size_t index) {
  throw TypeException(fmt::format("{}(): argument {} has the wrong type", function, index + 1));
}
}  // namespace detail

}  // namespace Kelp
