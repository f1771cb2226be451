// The shared-memory IGP result table, read from Python.
//
// An IgpResultTable is a reader: it never changes the table. Changes are collected as they are
// polled and handed out by changes():
//
//   table = bgpcommon.IgpResultTable("vrf1")
//   while True:
//       table.wait(1.0)                      # blocks (without the GIL) until something changed
//       for change in table.changes():
//           if change == bgpcommon.RESYNC:   # read everything again
//               ...
//           elif change in (bgpcommon.WRITER_CLOSED, bgpcommon.WRITER_OPEN):
//               ...
//           else:                            # a record's key: table.get(change) is its record or None
//               ...
//
// Corruption found while reading (a damaged record reads as absent) goes to on_corruption(message)
// when given; otherwise the operation that met it raises TableCorruptionError once it is done.
#include <deque>
#include <mutex>
#include <string>
#include <variant>
#include <vector>

#include <pybind11/stl.h>

#include "BgpCommon/FilteredRtStatus.h"
#include "python/Module.h"

namespace bgpcommon_python {

namespace {

using Routing::BgpRedistribute::IgpResult;
using Routing::BgpRedistribute::IgpResultId;
using Routing::BgpRedistribute::IgpResultStatus;

// The registry's own entry (the module holds a copy of the template's of its own).
const Kelp::TypeInfo* recordType() {
  static const Kelp::TypeInfo* t = Kelp::findType(Kelp::typeNameOf<IgpResult>());
  return t;
}

constexpr const char* kResync = "resync";
constexpr const char* kWriterClosed = "writer closed";
constexpr const char* kWriterOpen = "writer open";

PyObject* corruptionError = nullptr;

class IgpResultTable : public IgpResultStatus::Notifiee {
 public:
  IgpResultTable(const std::string& name, const std::optional<std::string>& root, py::object onCorruption)
      : onCorruption_(std::move(onCorruption)) {
    auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.value_or(""));
    status_ = IgpResultStatus::createIgpResultStatusReader(name, em);
    if (!status_) throw py::value_error(IgpResultStatus::mountPath(name) + " holds no IGP result table");
    // Runs inside the reader, possibly without the GIL: it only queues the message.
    status_->resultControl()->corruptionHandlerIs([this](std::string_view message) {
      std::lock_guard<std::mutex> lock(reportsMutex_);
      reports_.emplace_back(message);
    });
    status_->notifieeIs(this);
  }
  ~IgpResultTable() override {
    // The entity may outlive this reader object (the entity manager holds it too): leave it with
    // nothing pointing back here.
    status_->notifieeDel(this);
    status_->resultControl()->corruptionHandlerIs([](std::string_view) {});
  }
  IgpResultTable(const IgpResultTable&) = delete;
  IgpResultTable& operator=(const IgpResultTable&) = delete;

  std::size_t size() {
    auto lock = lockReader();
    std::size_t n = status_->resultCount();
    report();
    return n;
  }

  bool writerOpen() {
    auto lock = lockReader();
    return status_->resultControl()->reader()->writerOpen();
  }

  py::object get(std::uint32_t id) {
    auto lock = lockReader();
    std::optional<IgpResult> r = status_->result(IgpResultId(id));
    report();
    if (!r) return py::none();
    return wrapValue(recordType(), *r);
  }

  py::list records() {
    auto lock = lockReader();
    std::vector<IgpResult> all;
    status_->resultForEach([&](const IgpResult& r) { all.push_back(r); });
    std::sort(all.begin(), all.end(), [](const IgpResult& a, const IgpResult& b) { return a.key.value < b.key.value; });
    py::list out;
    for (const IgpResult& r : all) out.append(wrapValue(recordType(), r));
    report();
    return out;
  }

  // Waits up to `timeout` seconds for a change, without the GIL, and collects what arrived.
  bool wait(double timeout) {
    if (timeout < 0) throw py::value_error("timeout must not be negative");
    {
      py::gil_scoped_release release;
      std::lock_guard<std::mutex> lock(readerMutex_);
      status_->resultControl()->waitForChanges(timeout);
      status_->resultControl()->poll();
    }
    report();
    return !changes_.empty();
  }

  // The changes since the last call, oldest first; polls first, so it never blocks.
  py::list changes() {
    {
      auto lock = lockReader();
      status_->resultControl()->poll();
    }
    report();
    py::list out;
    for (const Change& c : changes_) {
      if (const auto* key = std::get_if<std::uint32_t>(&c)) {
        out.append(*key);
      } else {
        out.append(std::get<const char*>(c));
      }
    }
    changes_.clear();
    return out;
  }

  // Notifiee: called from poll(), with the reader's lock held and perhaps without the GIL.
  void onResult(IgpResultId key) override { changes_.emplace_back(key.value); }
  void onResultQuiesced(bool quiesced) override { changes_.emplace_back(quiesced ? kWriterClosed : kWriterOpen); }
  void onResultMountStatus() override {
    // Everything is read again: the keys before it say nothing more.
    changes_.clear();
    changes_.emplace_back(kResync);
  }

 private:
  using Change = std::variant<std::uint32_t, const char*>;

  // The reader is used by one thread at a time; a thread waits for it without holding the GIL, so
  // that one in wait() can take the GIL back when it is done.
  std::unique_lock<std::mutex> lockReader() {
    py::gil_scoped_release release;
    return std::unique_lock<std::mutex>(readerMutex_);
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
    raise(corruptionError, all.c_str());
  }

  py::object onCorruption_;
  Kelp::Ptr<IgpResultStatus> status_;
  std::mutex readerMutex_;
  std::deque<Change> changes_;  // guarded by readerMutex_ while polling, by the GIL otherwise
  std::mutex reportsMutex_;
  std::vector<std::string> reports_;
};

}  // namespace

void bindTables(py::module_& m) {
  corruptionError = PyErr_NewExceptionWithDoc("bgpcommon.TableCorruptionError",
                                              "A shared table held a damaged record (it read as absent).",
                                              PyExc_RuntimeError, nullptr);
  m.attr("TableCorruptionError") = py::reinterpret_borrow<py::object>(corruptionError);
  m.attr("RESYNC") = kResync;
  m.attr("WRITER_CLOSED") = kWriterClosed;
  m.attr("WRITER_OPEN") = kWriterOpen;

  py::class_<IgpResultTable>(m, "IgpResultTable", R"(A shared-memory IGP result table, opened read-only.

IgpResultTable(name, root=None, on_corruption=None) attaches to routing/rib/igpResultStatus/<name>
under root (default $BGPCOMMON_SHM_ROOT or /dev/shm/bgpcommon); the writer may come later.
len() counts the records, iteration gives them sorted by key, get(id) gives one or None.
wait(timeout) blocks until something changed (True) or the timeout passed (False); changes()
returns what changed since its last call, oldest first: record keys (int), RESYNC when everything
must be read again (keys before it are dropped), WRITER_CLOSED and WRITER_OPEN.
A damaged record reads as absent and is reported to on_corruption(message), or, without one,
raised as TableCorruptionError when the operation is done.)")
      .def(py::init<const std::string&, const std::optional<std::string>&, py::object>(), py::arg("name"),
           py::arg("root") = py::none(), py::kw_only(), py::arg("on_corruption") = py::none())
      .def("__len__", &IgpResultTable::size)
      .def("__iter__", [](IgpResultTable& t) { return py::iter(t.records()); })
      .def("get", &IgpResultTable::get, py::arg("id"))
      .def_property_readonly("writer_open", &IgpResultTable::writerOpen)
      .def("wait", &IgpResultTable::wait, py::arg("timeout"))
      .def("changes", &IgpResultTable::changes);
}

}  // namespace bgpcommon_python
