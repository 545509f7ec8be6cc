#include "plugin_agent/handshake_news.h"

#include "common/poll_until.h"

namespace vexo::tools {

template <class Change>
void handshake_news::tell(Change change) {
  const std::lock_guard lock(mutex_);
  change(facts_);
  wake_.raise();
}

void handshake_news::stop() {
  tell([](facts& all) { all.stop = true; });
}

void handshake_news::stop_now() {
  tell([](facts& all) { all.stop = all.stop_now = true; });
}

void handshake_news::superseded() {
  tell([](facts& all) { all.superseded = true; });
}

void handshake_news::departed(int result) {
  tell([result](facts& all) { all.departed = result; });
}

handshake_news::facts handshake_news::wait(clock::time_point until, int fd) {
  pollfd watched[] = {{wake_.fd(), POLLIN, 0}, {fd, POLLIN, 0}};
  poll_until(watched, until);
  wake_.take();
  const std::lock_guard lock(mutex_);
  return facts_;
}

void handshake_news::wait_or_give_up(clock::time_point until, int fd) {
  const auto news = wait(until, fd);
  if (news.stop) throw given_up("the agent was told to stop");
  if (news.superseded) throw given_up("the appliance announced another snapshot of the LUN");
  if (news.departed) throw given_up("the appliance has given up");
}

}  // namespace vexo::tools
