// Two ICE agents of libnice send to each other what must arrive octet by octet, restart, and do it
// again. The near one is on a relay and nothing else.
//
//   libnice-client relay|host PORT      the far end is on a relay as well, or on 127.0.0.1

#include <cstdlib>
#include <iostream>
#include <string>

#include <nice/agent.h>

namespace {

constexpr guint component = 1;
constexpr gint64 patience = 20 * G_USEC_PER_SEC;

void require(bool condition, const char* what) {
  if (!condition) {
    std::cerr << "libnice-client: " << what << '\n';
    std::exit(1);
  }
}

// Runs the agents until it is so.
template <typename Condition>
void await(const char* what, Condition condition) {
  const gint64 deadline = g_get_monotonic_time() + patience;
  while (!condition()) {
    require(g_get_monotonic_time() < deadline, what);
    g_main_context_iteration(nullptr, TRUE);  // their timers end it now and then
  }
}

// One agent, with a stream of one component.
struct End {
  End(bool controlling, bool relayed, unsigned port) {
    g_object_set(agent, "controlling-mode", controlling, "force-relay", relayed, "upnp", FALSE,
                 "ice-tcp", FALSE, nullptr);
    NiceAddress loopback;
    nice_address_init(&loopback);
    nice_address_set_from_string(&loopback, "127.0.0.1");
    nice_agent_add_local_address(agent, &loopback);
    if (relayed) {
      nice_agent_set_relay_info(agent, stream, component, "127.0.0.1", port, "alice", "wonderland",
                                NICE_RELAY_TYPE_TURN_UDP);
    }
    const auto isReady = +[](NiceAgent*, guint, guint, guint state, End* end) {
      end->ready = state == NICE_COMPONENT_STATE_READY;
    };
    g_signal_connect(agent, "component-state-changed", G_CALLBACK(isReady), this);
    const auto isGathered = +[](NiceAgent*, guint, End* end) { end->gathered = true; };
    g_signal_connect(agent, "candidate-gathering-done", G_CALLBACK(isGathered), this);
    const auto receive = [](NiceAgent*, guint, guint, guint size, gchar* octets, gpointer end) {
      static_cast<End*>(end)->received.assign(octets, size);
    };
    nice_agent_attach_recv(agent, stream, component, nullptr, receive, this);
    nice_agent_gather_candidates(agent, stream);
    await("candidates are gathered", [this] { return gathered; });
  }

  void learn(const End& other) {
    gchar* user = nullptr;
    gchar* password = nullptr;
    nice_agent_get_local_credentials(other.agent, other.stream, &user, &password);
    nice_agent_set_remote_credentials(agent, stream, user, password);
    GSList* candidates = nice_agent_get_local_candidates(other.agent, other.stream, component);
    nice_agent_set_remote_candidates(agent, stream, component, candidates);
    g_slist_free_full(candidates, reinterpret_cast<GDestroyNotify>(nice_candidate_free));
    g_free(user);
    g_free(password);
  }

  void send(const std::string& payload, const End& to) {
    nice_agent_send(agent, stream, component, static_cast<guint>(payload.size()), payload.data());
    await("what was sent arrives", [&] { return to.received == payload; });
  }

  void close() {
    const auto isClosed = [](GObject*, GAsyncResult*, gpointer end) {
      static_cast<End*>(end)->closed = true;
    };
    nice_agent_close_async(agent, isClosed, this);
    await("the agent closes", [this] { return closed; });
    g_object_unref(agent);
  }

  NiceAgent* agent = nice_agent_new_full(nullptr, NICE_COMPATIBILITY_RFC5245,
                                         NICE_AGENT_OPTION_REGULAR_NOMINATION);
  guint stream = nice_agent_add_stream(agent, 1);
  bool gathered = false;
  bool ready = false;
  bool closed = false;
  std::string received;
};

void connectAndExchange(End& a, End& b) {
  a.learn(b);
  b.learn(a);
  await("both are connected", [&] { return a.ready && b.ready; });
  for (std::size_t size = 1; size < 1200; size += 24) {
    std::string payload(size, '\0');
    for (char& octet : payload) {
      octet = static_cast<char>(g_random_int());
    }
    a.send(payload, b);
    b.send(payload + "back", a);
  }
}

}  // namespace

int main(int count, char** arguments) {
  require(count == 3, "relay or host, and a port");
  const auto port = static_cast<unsigned>(std::stoul(arguments[2]));
  End a(true, true, port);
  End b(false, arguments[1] == std::string("relay"), port);
  connectAndExchange(a, b);
  for (End* const end : {&a, &b}) {
    nice_agent_restart(end->agent);
    end->ready = false;
  }
  connectAndExchange(a, b);
  a.close();
  b.close();
}
