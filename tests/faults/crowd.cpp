#include "crowd.h"

#include "subscriber.h"

namespace vexo::test {

using namespace scsiplugin;

crowd::crowd(history* to, const std::string& prefix, std::size_t streams, std::size_t connections)
    : history_(to) {
  for (std::size_t i = 0; i < connections; ++i) {
    connections_.push_back(connect("127.0.0.1:3265"));
  }
  for (std::size_t i = 0; i < streams; ++i) {
    streams_.push_back(std::make_unique<stream>());
    stream& it = *streams_.back();
    it.plugin_id = prefix + std::to_string(i);
    it.stub = PluginService::NewStub(connections_[i % connections]);
    PluginClient request;
    request.set_plugin_id(it.plugin_id);
    it.reader = it.stub->PrepareAsyncSubscribe(&it.context, request, &queue_);
    it.reader->StartCall(&it);
  }
  reader_ = std::thread(&crowd::read_all, this);
}

crowd::~crowd() { leave(); }

void crowd::leave() {
  if (!reader_.joinable()) return;
  for (auto& it : streams_) it->context.TryCancel();
  reader_.join();
  queue_.Shutdown();
  streams_.clear();
  connections_.clear();
}

void crowd::read_all() {
  void* tag = nullptr;
  bool ok = false;
  while (ended_ < streams_.size() && queue_.Next(&tag, &ok)) advance(static_cast<stream*>(tag), ok);
}

void crowd::advance(stream* it, bool ok) {
  if (it->state == stream::ending) {
    ++ended_;
  } else if (!ok) {
    it->state = stream::ending;
    it->reader->Finish(&it->status, it);
  } else {
    if (it->state == stream::reading) {
      history_->add(it->plugin_id, it->plugin_id, it->message);
      ++received_;
    }
    it->state = stream::reading;
    it->reader->Read(&it->message, it);
  }
}

}  // namespace vexo::test
