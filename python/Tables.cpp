// The shared-memory status tables, read from Python.
//
// One implementation, the Python class Table, serves every table entity of the library
// (KelpSharedMem::TableEntity: a collection of records keyed by their field `key`, read through
// its generic members and heard through its watchers); each entity adds only a Python name: IgpResultTable (IGP results by identifier) and
// FilteredRouteTable (filtered routes by prefix). A Table is a reader: it never changes the table.
// It is a read-only mapping from a record's key to the record, and collects changes as they are
// polled:
//
//   with bgpcommon.IgpResultTable("vrf1") as table:   # FileNotFoundError when there is none
//       record = table[7]                            # KeyError when absent; table.get(7) is None
//       while True:
//           table.wait()                             # until something changes; Ctrl-C ends it
//           for change in table.changes():
//               if change == bgpcommon.RESYNC:       # read everything again
//                   ...
//               elif change in (bgpcommon.WRITER_CLOSED, bgpcommon.WRITER_OPEN):
//                   ...
//               else:                                # a record's key: table.get(change) is its
//                   ...                              # record, or None once deleted
//
// Threads: lookups, len(), iteration and keys()/values()/items() read the table without a lock
// (the reader allows it) and may run while another thread waits in wait(); polling for changes
// is one thread at a time. close() waits for the operations in flight.
//
// Corruption found while reading (a damaged record reads as absent) goes to on_corruption(message)
// when given; otherwise the operation that met it raises TableCorruptionError once it is done.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "BgpCommon/FilteredRtStatus.h"
#include "python/Module.h"

namespace bgpcommon_python {

namespace {

using Routing::BgpRedistribute::FilteredRtStatus;
using Routing::BgpRedistribute::IgpResultStatus;

PyObject* corruptionError = nullptr;

// The change tokens Python hands out are the names of the changes (Shelf::changeKindName).
py::str changeToken(Shelf::Change::Kind kind) {
  const std::string_view name = Shelf::changeKindName(kind);
  return py::str(name.data(), name.size());
}

// ---- Opening -------------------------------------------------------------------------------

[[noreturn]] void raiseOsError(PyObject* type, int error, const std::string& message, const std::string& path) {
  py::object e = py::reinterpret_borrow<py::object>(type)(error, message, path);
  PyErr_SetObject(type, e.ptr());
  throw py::error_already_set();
}

// FileNotFoundError / NotADirectoryError when the root or the table file is not there.
void checkTableExists(const std::string& root, const std::string& path) {
  struct stat st;
  if (::stat(root.c_str(), &st) != 0) {
    if (errno == ENOTDIR) raiseOsError(PyExc_NotADirectoryError, ENOTDIR, "the table root is not a folder", root);
    raiseOsError(PyExc_FileNotFoundError, ENOENT, "no table root", root);
  }
  if (!S_ISDIR(st.st_mode)) raiseOsError(PyExc_NotADirectoryError, ENOTDIR, "the table root is not a folder", root);
  const std::string file = root + "/" + path;
  if (::stat(file.c_str(), &st) != 0) {
    if (errno == ENOTDIR) raiseOsError(PyExc_NotADirectoryError, ENOTDIR, "a folder of the table's path is a file", file);
    raiseOsError(PyExc_FileNotFoundError, ENOENT, "no table (pass missing_ok=True to wait for its writer)", file);
  }
}

// The root as Python's file functions take a path: a str, bytes or an os.PathLike (TypeError for
// anything else). ValueError for a NUL in it, which the file system would take for its end and
// so open a table under another folder than the one named.
std::optional<std::string> rootArg(py::handle root) {
  if (root.is_none()) return std::nullopt;
  std::string path = py::module_::import("os").attr("fsencode")(root).cast<std::string>();
  if (path.find('\0') != std::string::npos) throw py::value_error("root: embedded null byte");
  return path;
}

// ---- The table -----------------------------------------------------------------------------

class Table {
 public:
  virtual ~Table() = default;

  std::size_t size() {
    auto life = alive();
    std::size_t n = count();
    report();
    return n;
  }

  bool writerOpen() {
    auto life = alive();
    return control()->reader()->writerOpen();
  }

  // The record under `key`, or none; a key of the wrong type is absent.
  std::optional<py::object> lookup(py::handle key) {
    std::any k;
    try {
      k = fromPython(key, conversionFor(keyType()), "key");
    } catch (const py::error_already_set& e) {
      if (!e.matches(PyExc_TypeError) && !e.matches(PyExc_ValueError) && !e.matches(PyExc_OverflowError)) throw;
      return std::nullopt;
    }
    std::optional<std::any> r;
    {
      auto life = alive();
      r = find(k);
    }
    report();
    if (!r) return std::nullopt;
    return toPython(*r);
  }

  py::object getItem(py::handle key) {
    if (auto r = lookup(key)) return *r;
    PyErr_SetObject(PyExc_KeyError, key.ptr());
    throw py::error_already_set();
  }
  py::object get(py::handle key, py::object otherwise) { return lookup(key).value_or(otherwise); }
  bool contains(py::handle key) { return lookup(key).has_value(); }

  // Every record, sorted by key, as (key, record) pairs.
  std::vector<std::pair<py::object, py::object>> entries() {
    std::vector<std::any> all;
    {
      auto life = alive();
      all = sortedRecords();
    }
    report();
    std::vector<std::pair<py::object, py::object>> out;
    out.reserve(all.size());
    for (const std::any& r : all) out.emplace_back(toPython(keyOf(r)), toPython(r));
    return out;
  }
  py::list keys() {
    py::list out;
    for (auto& [k, r] : entries()) out.append(k);
    return out;
  }
  py::list values() {
    py::list out;
    for (auto& [k, r] : entries()) out.append(r);
    return out;
  }
  py::list items() {
    py::list out;
    for (auto& [k, r] : entries()) out.append(py::make_tuple(k, r));
    return out;
  }

  // Waits for a change, in slices short enough for Ctrl-C to end the wait at once, without the
  // GIL and without keeping other threads from reading.
  bool wait(std::optional<double> timeout) {
    const double limit = timeout.value_or(std::numeric_limits<double>::infinity());
    if (std::isnan(limit)) throw py::value_error("timeout must be a number of seconds, not NaN");
    if (limit < 0) throw py::value_error("timeout must not be negative");
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
      pollChanges();
      if (!changes_.empty()) return true;
      const double left = limit - std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (left <= 0) return false;
      bool closed = false;
      withoutGil([&] {
        std::shared_lock life(lifeMutex_);
        std::lock_guard poll(pollMutex_);
        closed = entityGone();
        if (!closed) control()->waitForChanges(std::min(kWaitSlice, left));
      });
      if (closed) break;
      if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    }
    throw py::value_error("the table is closed");
  }

  // The changes since the last call, oldest first; polls first, so it never blocks for long.
  py::list changes() {
    pollChanges();
    py::list out;
    for (const py::object& c : changes_) out.append(c);
    changes_.clear();
    return out;
  }

  void close() {
    withoutGil([&] {
      std::unique_lock life(lifeMutex_);
      std::lock_guard poll(pollMutex_);
      detach();
    });
    changes_.clear();
  }

  // Called from poll(), which runs with the GIL held.
  void changed(Shelf::Change::Kind kind, const std::any& key) {
    // After a resync everything is read again: the keys before it say nothing more.
    if (kind == Shelf::Change::Kind::resync) changes_.clear();
    changes_.push_back(kind == Shelf::Change::Kind::key ? toPython(key) : changeToken(kind));
  }

 protected:
  explicit Table(py::object onCorruption) : onCorruption_(std::move(onCorruption)) {}

  // The entity's corruption reports go to the queue that report() empties. Runs inside the
  // reader, possibly without the GIL: it only queues the message.
  void listenForCorruption(KelpShelf::CollectionControl& c) {
    c.corruptionHandlerIs([this](std::string_view message) {
      std::lock_guard<std::mutex> lock(reportsMutex_);
      reports_.emplace_back(message);
    });
  }

  virtual bool entityGone() const = 0;
  virtual std::optional<std::any> find(const std::any& key) const = 0;
  virtual std::vector<std::any> sortedRecords() const = 0;
  virtual std::size_t count() const = 0;
  virtual const std::type_info& keyType() const = 0;
  virtual std::any keyOf(const std::any& record) const = 0;
  virtual KelpShelf::CollectionControl* control() const = 0;
  // Lets go of the entity (called once no other thread uses it).
  virtual void detach() = 0;

 private:
  static constexpr double kWaitSlice = 0.05;

  // Holds off close() while an operation reads the table; ValueError once closed.
  std::shared_lock<std::shared_mutex> alive() {
    std::shared_lock<std::shared_mutex> lock(lifeMutex_, std::try_to_lock);
    if (!lock.owns_lock()) {
      withoutGil([&] { lock.lock(); });  // a close() in progress
    }
    if (entityGone()) throw py::value_error("the table is closed");
    return lock;
  }

  void pollChanges() {
    {
      auto life = alive();
      std::unique_lock poll(pollMutex_, std::try_to_lock);
      if (!poll.owns_lock()) {
        // Another thread waits: the changes are its to collect.
        life.unlock();
        report();
        return;
      }
      control()->poll();
    }
    report();
  }

  // Hands the corruption queued since the last call to on_corruption, or raises it.
  void report() {
    std::vector<std::string> reports;
    {
      std::lock_guard<std::mutex> lock(reportsMutex_);
      reports.swap(reports_);
    }
    if (reports.empty()) return;
    if (!onCorruption_.is_none()) {
      for (const std::string& m : reports) onCorruption_(m);
      return;
    }
    std::string all = reports.front();
    if (reports.size() > 1) all += " (and " + std::to_string(reports.size() - 1) + " more)";
    raise(corruptionError, all);
  }

  py::object onCorruption_;
  std::shared_mutex lifeMutex_;  // shared by operations, exclusive for close()
  std::mutex pollMutex_;         // poll and wait, one thread at a time
  std::deque<py::object> changes_;  // guarded by the GIL
  std::mutex reportsMutex_;
  std::vector<std::string> reports_;
};

template <typename Entity>
class TableOf : public Table, KelpSharedMem::TableWatcher<typename Entity::KeyType> {
 public:
  using Key = typename Entity::KeyType;
  using Record = typename Entity::RecordType;

  TableOf(const std::string& name, const std::optional<std::string>& root, bool missingOk, py::object onCorruption)
      : Table(std::move(onCorruption)) {
    auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.value_or(""));
    const Kelp::String path = Entity::mountPath(name);
    if (!missingOk) checkTableExists(em->root(), path);
    em->mount(path, Entity::kTypeName, {KelpSharedMem::MountMode::reader, {}});
    entity_ = Kelp::ptrDynamicCast<Entity>(em->entity(path));
    if (!entity_) throw py::value_error(path + " holds no table of type " + std::string(Entity::kTypeName));
    listenForCorruption(*entity_->recordControl());
    entity_->watcherIs(this);
  }
  ~TableOf() override { detach(); }

 protected:
  bool entityGone() const override { return !entity_; }
  std::optional<std::any> find(const std::any& key) const override {
    std::optional<Record> r = entity_->recordFind(std::any_cast<const Key&>(key));
    if (!r) return std::nullopt;
    return std::any(std::move(*r));
  }
  std::vector<std::any> sortedRecords() const override {
    std::vector<Record> all = entity_->recordsByKey();
    return std::vector<std::any>(all.begin(), all.end());
  }
  std::size_t count() const override { return entity_->recordCount(); }
  const std::type_info& keyType() const override { return typeid(Key); }
  std::any keyOf(const std::any& record) const override { return std::any_cast<const Record&>(record).key; }
  KelpShelf::CollectionControl* control() const override { return entity_->recordControl().get(); }
  void detach() override {
    if (!entity_) return;
    // The entity may outlive this object (its entity manager holds it too): leave it with nothing
    // pointing back here.
    entity_->watcherDel(this);
    entity_->recordControl()->corruptionHandlerIs([](std::string_view) {});
    entity_ = nullptr;
  }

 private:
  void onTableChange(const KelpSharedMem::TableChange<Key>& c) override {
    changed(c.kind, c.key != nullptr ? std::any(*c.key) : std::any());
  }

  Kelp::Ptr<Entity> entity_;
};

constexpr const char* kTableDoc = R"(A shared-memory table, opened read-only: a mapping from a record's key to the record.

t[key] is the record (KeyError when absent), t.get(key, default=None), key in t, len(t),
iter(t) and t.keys() give the keys sorted, t.values() the records, t.items() (key, record) pairs.
A key is a record's own key or its plain Python form (an int for an identifier, an ipaddress
network or its text for a prefix).

wait(timeout=None) blocks until something changed (True) or the timeout passed (False); None
waits for ever; Ctrl-C ends it with KeyboardInterrupt. Other threads may read the table
meanwhile. changes() returns what changed since its last call, oldest first: keys, RESYNC when
everything must be read again (keys before it are dropped), WRITER_CLOSED and WRITER_OPEN.
writer_open tells whether a writer has the table open.

close() lets go of the table (also at the end of a with block); using it afterwards is ValueError.
A damaged record reads as absent and is reported to on_corruption(message), or, without one,
raised as TableCorruptionError when the operation is done.)";

template <typename Entity>
void bindTable(py::module_& m, py::handle base, const char* name, const char* doc) {
  py::class_<TableOf<Entity>, Table>(m, name, doc)
      .def(py::init([](const std::string& name, py::handle root, bool missingOk, py::object onCorruption) {
             return std::make_unique<TableOf<Entity>>(name, rootArg(root), missingOk, std::move(onCorruption));
           }),
           py::arg("name"), py::arg("root") = py::none(), py::kw_only(), py::arg("missing_ok") = false,
           py::arg("on_corruption") = py::none());
  (void)base;
}

}  // namespace

void bindTables(py::module_& m) {
  corruptionError = PyErr_NewExceptionWithDoc("bgpcommon.TableCorruptionError",
                                              "A shared table held a damaged record (it read as absent).",
                                              PyExc_RuntimeError, nullptr);
  m.attr("TableCorruptionError") = py::reinterpret_borrow<py::object>(corruptionError);
  m.attr("RESYNC") = changeToken(Shelf::Change::Kind::resync);
  m.attr("WRITER_CLOSED") = changeToken(Shelf::Change::Kind::writerClosed);
  m.attr("WRITER_OPEN") = changeToken(Shelf::Change::Kind::writerOpen);

  py::class_<Table> table(m, "Table", kTableDoc);
  table.def("__len__", &Table::size)
      .def("__getitem__", &Table::getItem, py::arg("key"))
      .def("__contains__", &Table::contains, py::arg("key"))
      .def("__iter__", [](Table& t) { return py::iter(t.keys()); })
      .def("get", &Table::get, py::arg("key"), py::arg("default") = py::none(),
           "The record under key, or default.")
      .def("keys", &Table::keys, "The keys of the records, sorted.")
      .def("values", &Table::values, "The records, sorted by key.")
      .def("items", &Table::items, "(key, record) pairs, sorted by key.")
      .def_property_readonly("writer_open", &Table::writerOpen, "Whether a writer has the table open.")
      .def("wait", &Table::wait, py::arg("timeout") = py::none(),
           ""
           "Blocks until something changed (True) or timeout seconds passed (False); None waits for ever.")
      .def("changes", &Table::changes, "What changed since the last call, oldest first.")
      .def("close", &Table::close, "Lets go of the table.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](Table& t, py::args) { t.close(); });

  bindTable<IgpResultStatus>(m, table, "IgpResultTable",
                             "The IGP results of routing/rib/igpResultStatus/<name> under root (a str, bytes or "
                             "os.PathLike; default $BGPCOMMON_SHM_ROOT or /dev/shm/bgpcommon), by identifier (see "
                             "Table).\n"
                             "A missing root or table raises FileNotFoundError (NotADirectoryError for a "
                             "root that is not a folder) unless missing_ok, which attaches to a table its "
                             "writer has yet to create.");
  bindTable<FilteredRtStatus>(m, table, "FilteredRouteTable",
                              "The filtered routes of routing/rib/filteredRtStatus/<name> under root, by "
                              "prefix (see Table and IgpResultTable).");
}

}  // namespace bgpcommon_python
