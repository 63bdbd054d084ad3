#include "server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iterator>
#include <microhttpd.h>
#include <mutex>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>

namespace testbed {

struct Server::State {
  mutable std::mutex mutex;
  std::condition_variable stopping_changed;
  bool stopping = false;
  std::map<std::string, Answer> routes;
  std::vector<Request> requests;
  MHD_Daemon* daemon = nullptr;
  std::uint16_t port = 0;

  MHD_Result answer(MHD_Connection* connection, const char* method, const std::string& uri);
  void record(MHD_Connection* connection, const char* method, const std::string& uri);
};

namespace {

// A body on its way to one client, with the trouble that is to happen.
struct Sending {
  const std::string body;
  Answer::Trouble trouble;
  std::size_t after;
  std::mutex& mutex;
  std::condition_variable& changed;
  const bool& stopping;
};

ssize_t send_some(void* context, std::uint64_t position, char* to, std::size_t room) {
  auto& sending = *static_cast<Sending*>(context);
  std::size_t end = sending.body.size();
  if (sending.trouble != Answer::Trouble::none) end = std::min(end, sending.after);
  if (position >= end) {
    if (sending.trouble == Answer::Trouble::stall) {
      std::unique_lock lock(sending.mutex);
      sending.changed.wait(lock, [&] { return sending.stopping; });
    }
    return MHD_CONTENT_READER_END_WITH_ERROR;
  }
  const std::size_t count = std::min(room, end - static_cast<std::size_t>(position));
  std::memcpy(to, sending.body.data() + position, count);
  return static_cast<ssize_t>(count);
}

void end_sending(void* context) { delete static_cast<Sending*>(context); }

void send_raw(MHD_Connection* connection, const std::string& bytes) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  for (std::size_t sent = 0; info && sent < bytes.size();) {
    const ssize_t count =
        send(info->connect_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return;
    sent += static_cast<std::size_t>(count);
  }
}

MHD_Result add_parameter(void* context, MHD_ValueKind, const char* key, const char* value) {
  static_cast<Request*>(context)->parameters.emplace_back(key, value ? value : "");
  return MHD_YES;
}

MHD_Result respond(MHD_Connection* connection, const Answer& answer, MHD_Response* response) {
  if (!response) return MHD_NO;
  if (!answer.content_type.empty())
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.content_type.c_str());
  for (const auto& [name, value] : answer.headers)
    MHD_add_response_header(response, name.c_str(), value.c_str());
  const MHD_Result result =
      MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
  MHD_destroy_response(response);
  return result;
}

// The URI as it stands in the request; it travels to the other callbacks as the connection's
// context.
void* remember_uri(void*, const char* uri, MHD_Connection*) { return new std::string(uri); }

void forget_uri(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
  delete static_cast<std::string*>(*context);
  *context = nullptr;
}

} // namespace

void Server::State::record(MHD_Connection* connection, const char* method, const std::string& uri) {
  Request request;
  request.method = method;
  const std::size_t mark = uri.find('?');
  request.path = uri.substr(0, mark);
  if (mark != std::string::npos) request.query = uri.substr(mark + 1);
  MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, add_parameter, &request);
  const char* agent =
      MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_USER_AGENT);
  if (agent) request.user_agent = agent;
  requests.push_back(std::move(request));
}

MHD_Result Server::State::answer(MHD_Connection* connection, const char* method,
                                 const std::string& uri) {
  Answer answer{"Nothing is served here.\n", "text/plain", 404};
  {
    std::lock_guard lock(mutex);
    record(connection, method, uri);
    const auto route = routes.find(uri.substr(0, uri.find('?')));
    if (route != routes.end()) answer = route->second;
  }
  if (answer.file) {
    std::ifstream in(*answer.file, std::ios::binary);
    if (in)
      answer.body.assign(std::istreambuf_iterator<char>(in), {});
    else
      answer = {"The file of this route cannot be read.\n", "text/plain", 500};
  }
  switch (answer.trouble) {
  case Answer::Trouble::junk:
    send_raw(connection, answer.body);
    return MHD_NO;
  case Answer::Trouble::hang_up:
    return MHD_NO;
  default:
    break;
  }
  const std::size_t size = answer.body.size();
  if (size == 0)
    return respond(connection, answer,
                   MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT));
  auto* sending = new Sending{std::move(answer.body), answer.trouble, answer.after, mutex,
                              stopping_changed,       stopping};
  return respond(connection, answer,
                 MHD_create_response_from_callback(size, 1 << 16, send_some, sending, end_sending));
}

Server::Server() : state_(std::make_unique<State>()) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto handle = [](void* state, MHD_Connection* connection, const char*, const char* method,
                         const char*, const char*, std::size_t* upload_size,
                         void** context) -> MHD_Result {
    *upload_size = 0;
    return static_cast<State*>(state)->answer(connection, method,
                                              *static_cast<std::string*>(*context));
  };
  // A thread a connection: a stalled one holds up nobody else.
  state_->daemon = MHD_start_daemon(
      MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD, 0, nullptr, nullptr, handle,
      state_.get(), MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_URI_LOG_CALLBACK, remember_uri,
      nullptr, MHD_OPTION_NOTIFY_COMPLETED, forget_uri, nullptr, MHD_OPTION_END);
  const MHD_DaemonInfo* info =
      state_->daemon ? MHD_get_daemon_info(state_->daemon, MHD_DAEMON_INFO_BIND_PORT) : nullptr;
  if (!info) throw std::runtime_error("testbed server: no port on 127.0.0.1 can be listened on");
  state_->port = info->port;
}

Server::~Server() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->stopping_changed.notify_all();
  MHD_stop_daemon(state_->daemon);
}

std::string Server::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(state_->port) + std::string(path);
}

std::uint16_t Server::port() const { return state_->port; }

void Server::serve(const std::string& path, Answer answer) {
  std::lock_guard lock(state_->mutex);
  state_->routes[path] = std::move(answer);
}

std::vector<Request> Server::requests() const {
  std::lock_guard lock(state_->mutex);
  return state_->requests;
}

std::vector<Request> Server::requests(std::string_view path) const {
  std::vector<Request> result = requests();
  std::erase_if(result, [&](const Request& request) { return request.path != path; });
  return result;
}

std::string Request::parameter(std::string_view name) const {
  for (const auto& [key, value] : parameters)
    if (key == name) return value;
  return {};
}

} // namespace testbed
