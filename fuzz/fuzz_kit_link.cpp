// A link of the kit whose driver is hostile: it sends any bytes in any pieces, answers in any order, twice or not at
// all, and hangs up at any moment. Every call must end exactly once, with a reply that the driver has sent or with an
// error of a known domain, and what the link sends must be frames.
//
//   input       how the driver greets (1 byte), operations
//   operation   low four bits: which (see `operations`), high four bits: its argument; some take further bytes
#include <poll.h>
#include <ptz_kit.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "command_channel.h"
#include "fuzz_target.h"
#include "handles.h"
#include "interpose.h"
#include "temp_dir.h"

using namespace ptz_fuzz;

namespace {

using ptz_test::Object;

constexpr std::size_t operations_max = 96;
constexpr std::size_t calls_max = 96;
constexpr std::size_t turns_max = 4096;
constexpr std::size_t greetings = 3;
constexpr guint deadline_ms = 2000;
constexpr std::int64_t longest_retry_ms = 5000;

enum Manner : std::uint8_t { greets = 1, has_one_place = 2, ignores_calls_in_callbacks = 4 };

// Typed calls, whose replies are of all kinds: numbers, texts, lists of records, none.
using Start = void (*)(PTZKitLink *, GCancellable *, GAsyncReadyCallback, gpointer);
using Finish = bool (*)(PTZKitLink *, GAsyncResult *, GError **);
struct Form {
  Start start;
  Finish finish;
};
template <auto async_call, auto finish_call, auto free_reply>
constexpr Form form_of = {[](PTZKitLink *link, GCancellable *cancellable, GAsyncReadyCallback callback, gpointer data) {
                            async_call(link, deadline_ms, cancellable, callback, data);
                          },
                          [](PTZKitLink *link, GAsyncResult *result, GError **error) {
                            auto *reply = finish_call(link, result, error);
                            free_reply(reply);
                            return reply != nullptr;
                          }};
#define FORM(name) form_of<ptz_kit_link_##name##_async, ptz_kit_link_##name##_finish, ptz_kit_##name##_reply_free>
constexpr Form forms[] = {FORM(query_position),        FORM(get_driver_name),  FORM(get_device_types),
                          FORM(get_device_presets),    FORM(query_attributes), FORM(query_zoomdelim),
                          FORM(get_driver_parameters), FORM(query_speed)};
#undef FORM

class Scene;
struct PendingCall {
  Scene *scene;
  const Form *form;  // null for a call with a body
  Object<GCancellable> cancellable;
  int ends = 0;
};

void require_known(const GError *error) {
  REQUIRE(error != nullptr);
  REQUIRE(error->domain == PTZ_KIT_ERROR || error->domain == PTZ_KIT_REFUSAL ||
          g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
  REQUIRE(error->message != nullptr && g_utf8_validate(error->message, -1, nullptr) != FALSE);
}

gint32 command_of(std::string_view body) {
  gint32 command = -1;
  ptz_kit_body_get_command(reinterpret_cast<const guint8 *>(body.data()), body.size(), &command);
  return command;
}

std::string text_of(GBytes *bytes) {
  gsize length = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(bytes, &length));
  std::string text(data, length);
  g_bytes_unref(bytes);
  return text;
}

std::string greeting_to(gint32 command) {
  PTZKitGetDriverNameReply name = {const_cast<gchar *>("fuzz")};
  PTZKitGetCapabilitiesReply capabilities = {3, 4};
  PTZKitErrorReply refusal = {PTZ_KIT_ERROR_CODE_NOT_FOUND, const_cast<gchar *>("no such property")};
  if (command == PTZ_COMMAND_GET_DRIVER_NAME) return text_of(ptz_kit_get_driver_name_reply_to_bytes(&name, nullptr));
  if (command == PTZ_COMMAND_GET_CAPABILITIES) {
    return text_of(ptz_kit_get_capabilities_reply_to_bytes(&capabilities, nullptr));
  }
  return text_of(ptz_kit_error_reply_to_bytes(&refusal, nullptr));
}

const ptz_test::TempDir &folder() {
  static const ptz_test::TempDir made;
  return made;
}

class Scene {
  Input &input_;
  const std::uint8_t manner_;
  const std::string path_ = folder().file("driver");
  const ptz_test::Listener listener_{path_};
  std::unique_ptr<Peer> peer_;
  Messages requests_;  // of this connection
  std::size_t greeted_ = 0;
  std::vector<std::string> sent_bodies_;  // on connections that have ended
  Object<PTZKitLink> link_;
  std::deque<PendingCall> calls_;
  bool is_blocking_ = false;

 public:
  Scene(Input &input, std::uint8_t manner) : input_(input), manner_(manner) {
    link_.reset(
        PTZ_KIT_LINK(g_object_new(PTZ_KIT_TYPE_LINK, "socket-path", path_.c_str(), "max-pending",
                                  (manner & has_one_place) != 0 ? 1U : 4U, "handshake-deadline", 1000U, nullptr)));
    ptz_kit_link_open(link_.get());
    go_on();
    if ((manner_ & greets) != 0) REQUIRE(ptz_kit_link_get_state(link_.get()) == PTZ_KIT_LINK_STATE_READY);
  }
  Scene(const Scene &) = delete;
  ~Scene() {
    ptz_kit_link_close(link_.get());
    settle(turns_max);
    for (const PendingCall &call : calls_) REQUIRE(call.ends == 1);
    link_.reset();
    settle(turns_max);
    std::remove(path_.c_str());
  }

  void play() {
    for (std::size_t left = operations_max; left > 0 && !input_.empty(); --left) {
      const std::uint8_t operation = input_.byte();
      (this->*operations[operation % 16])(operation / 16);
    }
  }

  // A blocking call waits: what was composed is sent.
  void wait_for_reply() {
    REQUIRE(is_blocking_);
    if (peer_) peer_->send();
  }

 private:
  // The link connects, sends and reads; the driver accepts, reads and greets.
  void go_on() {
    settle(turns_max);
    if ((peer_ == nullptr || !peer_->is_open()) && listener_.has_waiting_client()) {
      keep_sent_bodies();
      peer_ = std::make_unique<Peer>(listener_.accept());
      requests_ = {};
      greeted_ = 0;
    }
    if (peer_ == nullptr || !peer_->is_open()) return;
    if (peer_->unread() > 0) requests_.add(peer_->receive());
    REQUIRE(!requests_.impossible());
    if ((manner_ & greets) == 0) return;
    for (; greeted_ < greetings && greeted_ < requests_.complete().size(); ++greeted_) {
      const Message &request = requests_.complete()[greeted_];
      peer_->compose(ptz_test::frame(request.id, greeting_to(command_of(request.body))));
      peer_->send();
    }
    settle(turns_max);
  }

  void keep_sent_bodies() {
    if (peer_ == nullptr) return;
    for (const Message &message : peer_->sent().complete()) sent_bodies_.push_back(message.body);
  }

  void require_sent(std::string_view body) const {
    const auto is_it = [body](const Message &message) { return message.body == body; };
    REQUIRE(std::ranges::find(sent_bodies_, body) != sent_bodies_.end() ||
            (peer_ != nullptr && std::ranges::any_of(peer_->sent().complete(), is_it)));
  }

  static void on_end(GObject *link, GAsyncResult *result, gpointer data) {
    auto *call = static_cast<PendingCall *>(data);
    REQUIRE(++call->ends == 1);
    call->scene->end(*call, PTZ_KIT_LINK(link), result);
  }

  void end(const PendingCall &call, PTZKitLink *link, GAsyncResult *result) {
    GError *error = nullptr;
    if (call.form != nullptr) {
      REQUIRE(call.form->finish(link, result, &error) == (error == nullptr));
    } else if (GBytes *reply = ptz_kit_link_call_finish(link, result, &error)) {
      REQUIRE(error == nullptr);
      require_sent(text_of(reply));
    } else {
      REQUIRE(error != nullptr);
    }
    if (error != nullptr) require_known(error);
    g_clear_error(&error);
    if ((manner_ & ignores_calls_in_callbacks) == 0 && calls_.size() % 8 == 7) call_typed(0);
  }

  PendingCall *new_call(const Form *form) {
    if (calls_.size() >= calls_max) return nullptr;
    return &calls_.emplace_back(PendingCall{this, form, Object<GCancellable>(g_cancellable_new())});
  }

  [[nodiscard]] guint32 id_of(std::uint8_t index) const {
    const auto &all = requests_.complete();
    return all.empty() ? index : all[all.size() - 1 - index % all.size()].id;
  }

  void compose(std::string_view bytes) {
    if (peer_) peer_->compose(bytes);
  }

  // Operations.

  void call_typed(std::uint8_t argument) {
    const Form &form = forms[argument % std::size(forms)];
    if (PendingCall *call = new_call(&form)) form.start(link_.get(), call->cancellable.get(), on_end, call);
  }

  void call_with_body(std::uint8_t argument) {
    PendingCall *call = new_call(nullptr);
    if (call == nullptr) return;
    const std::string_view bytes = input_.bytes(argument);
    GBytes *body = g_bytes_new(bytes.data(), bytes.size());
    ptz_kit_link_call_async(link_.get(), body, deadline_ms, call->cancellable.get(), on_end, call);
    g_bytes_unref(body);
  }

  void call_and_wait(std::uint8_t argument) {
    const guint32 word = argument;
    GBytes *body = g_bytes_new(&word, sizeof word);
    GError *error = nullptr;
    is_blocking_ = true;
    GBytes *reply = ptz_kit_link_call(link_.get(), body, deadline_ms, nullptr, &error);
    is_blocking_ = false;
    g_bytes_unref(body);
    REQUIRE((reply == nullptr) == (error != nullptr));
    if (reply != nullptr) require_sent(text_of(reply));
    if (error != nullptr) require_known(error);
    g_clear_error(&error);
  }

  void answer(std::uint8_t argument) { compose(ptz_test::frame(id_of(argument), input_.bytes(input_.byte()))); }
  void answer_next(std::uint8_t argument) {
    compose(ptz_test::frame(id_of(0) + 1 + argument, input_.bytes(input_.byte())));
  }
  // The command word of the request, as a reply without fields has it, and further bytes.
  void answer_in_kind(std::uint8_t argument) {
    const auto &all = requests_.complete();
    if (all.empty()) return;
    const Message &request = all[all.size() - 1 - argument % all.size()];
    compose(ptz_test::frame(request.id, request.body.substr(0, 4) + std::string(input_.bytes(input_.byte()))));
  }
  void refuse(std::uint8_t argument) { compose(ptz_test::frame(id_of(argument), greeting_to(-1))); }
  void compose_claim(std::uint8_t argument) {
    constexpr std::uint32_t lengths[4] = {0, PTZ_SOCKET_FRAME_HEADER_SIZE - 1, PTZ_SOCKET_FRAME_MAX + 1, 0xffffffff};
    compose(ptz_test::frame_claiming(lengths[argument % 4], id_of(argument / 4), input_.bytes(argument)));
  }
  void compose_bytes(std::uint8_t argument) { compose(input_.bytes(argument + 1U)); }
  void compose_long_frame(std::uint8_t argument) {
    compose(
        ptz_test::frame(id_of(argument / 4), body_of(argument, body_length(static_cast<std::uint8_t>(12 + argument)))));
  }
  void send_pieces(std::uint8_t argument) {
    for (int i = input_.byte() % 8; i >= 0 && peer_; --i) {
      peer_->send(piece_length(argument));
      go_on();
    }
  }
  void send_all(std::uint8_t) {
    if (peer_) peer_->send();
    go_on();
  }
  void hang_up(std::uint8_t argument) {
    if (peer_ == nullptr) return;
    if (argument % 2 == 0) {
      peer_->hang_up();
    } else {
      peer_->stop_sending();
    }
    go_on();
  }
  void cancel(std::uint8_t argument) {
    if (!calls_.empty()) g_cancellable_cancel(calls_[calls_.size() - 1 - argument % calls_.size()].cancellable.get());
    go_on();
  }
  void close_and_open(std::uint8_t argument) {
    ptz_kit_link_close(link_.get());
    if (argument % 4 != 0) settle(turns_max);
    if (argument % 2 != 0) ptz_kit_link_open(link_.get());
    go_on();
  }
  void wait(std::uint8_t argument) {
    move_clock((argument + 1) * longest_retry_ms / 16);
    go_on();
  }

  static constexpr void (Scene::*operations[16])(std::uint8_t) = {&Scene::call_typed,     &Scene::call_with_body,
                                                                  &Scene::call_and_wait,  &Scene::answer,
                                                                  &Scene::answer_next,    &Scene::answer_in_kind,
                                                                  &Scene::refuse,         &Scene::compose_claim,
                                                                  &Scene::compose_bytes,  &Scene::compose_long_frame,
                                                                  &Scene::send_pieces,    &Scene::send_all,
                                                                  &Scene::hang_up,        &Scene::cancel,
                                                                  &Scene::close_and_open, &Scene::wait};
};

Scene *waiting_scene = nullptr;

}  // namespace

// A blocking call polls with this: nothing takes time.
INTERPOSE(int, ppoll, (pollfd * fds, nfds_t count, const timespec *timeout, const sigset_t *mask)) {
  if (waiting_scene != nullptr) waiting_scene->wait_for_reply();
  const timespec none = {};
  const int ready = REAL(ppoll)(fds, count, &none, mask);
  if (ready == 0 && timeout != nullptr) move_clock(timeout->tv_sec * 1000 + timeout->tv_nsec / 1'000'000 + 1);
  return ready;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  start_main_loop();
  start_clock();
  Input input(data, size);
  {
    Scene scene(input, input.byte());
    waiting_scene = &scene;
    scene.play();
    waiting_scene = nullptr;
  }
  REQUIRE(take_failed_checks() == 0);
  return 0;
}
