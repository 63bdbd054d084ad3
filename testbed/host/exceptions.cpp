// Exceptions that plug-ins raise; they stay pending until somebody takes them.
#include "operations.h"

namespace host {

namespace {

struct Pending {
  std::vector<Raised> raised;
};
Pending& pending() {
  static auto* instance = new Pending;
  return *instance;
}

} // namespace

void resetExceptions() { takeExceptions(); }

std::vector<Raised> takeExceptions() {
  Guard guard(hostMutex());
  return std::exchange(pending().raised, {});
}

std::optional<Raised> takeException() {
  std::vector<Raised> all = takeExceptions();
  if (all.empty()) return {};
  all[0].count = unsigned(all.size());
  return all[0];
}

size_t pendingExceptions() {
  Guard guard(hostMutex());
  return pending().raised.size();
}

namespace operations {

void raiseException(ObjectHandle* exception) {
  if (!exception) die("RuntimeRaiseException: the exception is nil");
  Cell& cell = liveCell(exception, Form::object, "RuntimeRaiseException");
  Raised raised;
  raised.className = cell.type->name;
  raised.object = Object::lock(exception);
  raised.thread = currentThread();
  // Read now: the plug-in may change the object afterwards, but host code sees it as it is raised.
  if (auto* data = dynamic_cast<ExceptionData*>(cell.payload)) {
    if (data->message) raised.message = text(data->message).value_or(bytes(data->message));
    raised.errorNumber = data->number;
  }
  if (tracing())
    emit({Step::exceptionRaised,
          raised.className,
          {},
          {raised.message ? quoted(*raised.message) : "nil", std::to_string(raised.errorNumber)},
          exception,
          raised.thread});
  Guard guard(hostMutex());
  pending().raised.push_back(std::move(raised));
}

} // namespace operations

} // namespace host
