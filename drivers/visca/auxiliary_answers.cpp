// Auxiliaries and attributes.
#include "driver_state.h"

namespace visca {

namespace {

constexpr char power_name[] = "power", one_push_name[] = "one-push-focus";

struct Found {
  bool exists = false;
  bool on = false;
};

Found look_up(const State &state, const std::string &name) {
  if (name == power_name) return {true, state.head->is_on().value_or(false)};
  if (name == one_push_name) return {true, false};
  for (std::size_t index = 0; index < state.camera.auxiliaries.size(); ++index) {
    if (state.camera.auxiliaries[index].name == name) return {true, state.auxiliaries[index]};
  }
  return {};
}

void answer_state(const std::string &name, bool on, PTZKitReply *reply) {
  const PTZKitAuxiliaryReply message = {const_cast<gchar *>(name.c_str()),
                                        static_cast<guint32>(on ? PTZ_ENABLE_ON : PTZ_ENABLE_OFF)};
  ptz_kit_reply_auxiliary(reply, &message);
}

void answer(const State &state, const std::string &name, PTZKitReply *reply) {
  answer_state(name, look_up(state, name).on, reply);
}

Done answer_switch(State &state, const std::string &name, bool on, PTZKitReply *reply) {
  ptz_kit_reply_defer(reply);
  const std::shared_ptr<PTZKitReply> kept(static_cast<PTZKitReply *>(g_object_ref(reply)), g_object_unref);
  return [&state, name, on, kept](Outcome outcome) {
    if (ptz_kit_reply_is_answered(kept.get()) != FALSE) return;
    if (outcome != Outcome::done) return refuse(kept.get(), outcome);
    for (std::size_t index = 0; index < state.camera.auxiliaries.size(); ++index) {
      const RawAuxiliary &each = state.camera.auxiliaries[index];
      // Without a command for off it is a push button.
      if (each.name == name) state.auxiliaries[index] = on && each.off.size() > 0;
    }
    if (name == power_name) {
      state.head->expect_power(on);
      // The camera has accepted the order, and needs a while to power on.
      return answer_state(name, on, kept.get());
    }
    answer(state, name, kept.get());
  };
}

}  // namespace

void auxiliary(PTZKitDriver *self, const PTZKitAuxiliaryRequest *request, PTZKitReply *reply) {
  State &state = state_of(self);
  const std::string name = request->name;
  if (!look_up(state, name).exists) {
    // The name is not repeated: a long one would not fit the reply together with this text.
    return ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no auxiliary of this name");
  }
  if (request->state == PTZ_ENABLE_NONE) return answer(state, name, reply);
  if (!state.head->is_there()) return refuse(reply, Outcome::no_answer);
  const bool on = request->state == PTZ_ENABLE_ON;
  if (name == power_name) return state.head->set_power(on, answer_switch(state, name, on, reply));
  if (name == one_push_name) {
    if (!on) return answer(state, name, reply);
    return state.head->send(focus_one_push(state.head->address()), Group::other, false,
                            answer_switch(state, name, on, reply));
  }
  for (const RawAuxiliary &each : state.camera.auxiliaries) {
    if (each.name != name) continue;
    const Packet &packet = on ? each.on : each.off;
    if (packet.size() == 0) return answer(state, name, reply);
    return state.head->send(packet, Group::other, false, answer_switch(state, name, on, reply));
  }
}

void get_auxiliary(PTZKitDriver *self, PTZKitReply *reply) {
  const State &state = state_of(self);
  const Owned<PTZKitGetAuxiliaryReply, ptz_kit_get_auxiliary_reply_free> message(ptz_kit_get_auxiliary_reply_new());
  const auto add = [&](const std::string &name) {
    const Owned<PTZKitAuxiliary, ptz_kit_auxiliary_free> entry(
        ptz_kit_auxiliary_new(name.c_str(), look_up(state, name).on ? PTZ_ENABLE_ON : PTZ_ENABLE_OFF));
    ptz_kit_get_auxiliary_reply_add_auxiliary(message.get(), entry.get());
  };
  add(power_name);
  add(one_push_name);
  for (const RawAuxiliary &each : state.camera.auxiliaries) add(each.name);
  ptz_kit_reply_get_auxiliary(reply, message.get());
}

void query_attributes(PTZKitDriver *self, PTZKitReply *reply) {
  const auto &version = state_of(self).head->version();
  const Owned<PTZKitQueryAttributesReply, ptz_kit_query_attributes_reply_free> message(
      ptz_kit_query_attributes_reply_new());
  const auto add = [&](const char *name, unsigned value) {
    const Text text(g_strdup_printf("%04X", value));
    const Owned<PTZKitAttribute, ptz_kit_attribute_free> entry(ptz_kit_attribute_new(name, text.get()));
    ptz_kit_query_attributes_reply_add_attribute(message.get(), entry.get());
  };
  if (version) {
    add("vendor", version->vendor);
    add("model", version->model);
    add("firmware", version->rom);
  }
  ptz_kit_reply_query_attributes(reply, message.get());
}

}  // namespace visca
