#include <optional>

#include "kelp/Commands.h"
#include "kelp/LogView.h"

namespace Kelp {

void showLog(Session& session) {
  const std::size_t table = tableOf(session.options().table);
  std::optional<Waiter> waiter;
  if (session.options().follow) {
    waiter.emplace();
    session.out().stopFdIs(waiter->fd());
  }
  try {
    Common::withTable(table, [&](auto tag) {
      LogView<typename decltype(tag)::Table> view(session);
      view.show();
      if (waiter) {
        view.follow(*waiter);
      }
    });
  } catch (const OutputGone&) {
    if (!waiter) {
      throw;
    }
    session.out().text().clear();
  } catch (const Stopped&) {
    session.out().text().clear();
  }
  session.out().stopFdIs(-1);
}

}  // namespace Kelp
