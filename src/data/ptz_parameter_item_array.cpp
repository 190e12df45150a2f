#include "ptz_parameter_item_array.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/check.h"
#include "base/handles.h"

static_assert(std::is_standard_layout_v<PTZParameterItemArray> &&
              std::is_standard_layout_v<PTZParameterItemArrayClass>);
static_assert(offsetof(PTZParameterItemArray, name) == sizeof(GObject));
static_assert(offsetof(PTZParameterItemArrayClass, mutex) == sizeof(GObjectClass));

namespace {

using Node = PTZParameterItemNode;

// A node as the array allocates it.
struct IndexedNode {
  Node node;
  // Identifies the node after a function of the caller has run, which may have removed it: a new node can get the
  // address of an old one, but no number is used twice.
  guint64 number;
  guint name_hash;  // of the name at the time of the append: the caller may have changed the item's name since
};
static_assert(std::is_standard_layout_v<IndexedNode>);

struct NodesOfHash {
  Node *first;
  guint32 count;
};

}  // namespace

// Indexes of the list by position and by name, so that look-ups do not walk it. The list of `nodes` is exact. `named`
// has the nodes by the hash of the name that they were appended with. It is a hint only, because the name is a public
// field: a hit is verified against the item's name, and after a miss the list is walked.
struct PTZParameterItemArrayPrivate {
  std::vector<Node *> nodes;  // so also in the order of their numbers
  std::unordered_map<guint, NodesOfHash> named;
  guint64 appends = 0;
  guint32 removals = 0;
};

G_DEFINE_TYPE_WITH_PRIVATE(PTZParameterItemArray, ptz_parameter_item_array, G_TYPE_OBJECT)

namespace {

constexpr char module_name[] = "ptz_parameter_item_array";

enum Property { property_name = 1 };

// In our own class, not in that of the instance: a subclass begins with a copy of the class, lock and all.
GMutex *arrays_lock;

PTZParameterItemArrayPrivate *private_of(PTZParameterItemArray *self) {
  return static_cast<PTZParameterItemArrayPrivate *>(ptz_parameter_item_array_get_instance_private(self));
}

// Also read where the lock is not held.
std::atomic_ref<guint32> count_of(PTZParameterItemArray *self) { return std::atomic_ref(self->count); }
std::atomic_ref<Node *> link_at(Node *&link) { return std::atomic_ref(link); }

const IndexedNode *indexed(const Node *node) { return reinterpret_cast<const IndexedNode *>(node); }
guint64 number_of(const Node *node) { return indexed(node)->number; }
guint name_hash_of(const Node *node) { return indexed(node)->name_hash; }

guint hash_of(const gchar *name) { return name != nullptr ? g_str_hash(name) : 0; }
bool has_name(const Node *node, const gchar *name) { return g_strcmp0(node->item->name, name) == 0; }

// The link that leads to the node at a position.
Node *&link_to(PTZParameterItemArray *self, gsize position) {
  return position == 0 ? self->items : private_of(self)->nodes[position - 1]->next;
}

void give(gchar *&field, ptz::Text text) { g_free(std::exchange(field, text.release())); }

// The text may be part of the item's own value, and need not have an end within the size of a value.
void replace_value(PTZParameterItem *item, const gchar *text) {
  const gsize length = strnlen(text, PAR_VAL_MAX_LEN - 1);
  std::memmove(item->value, text, length);
  item->value[length] = '\0';
}

void free_node(Node *node) {
  PTZParameterItem *item = node->item;
  g_free(item->name);
  g_free(item->text);
  g_free(item->info);
  g_free(item->range);
  g_free(item);
  g_free(node);
}

// ---- lock held, or nobody else uses the array

PTZParameterItem *append_copy(PTZParameterItemArray *self, const PTZParameterItem *source) {
  auto *item = g_new0(PTZParameterItem, 1);
  item->code = source->code;
  item->name = g_strdup(source->name);
  item->text = g_strdup(source->text);
  replace_value(item, source->value);
  item->info = g_strdup(source->info);
  item->info_code = source->info_code;
  item->range = g_strdup(source->range);
  item->range_code = source->range_code;
  auto *state = private_of(self);
  auto *made = g_new0(IndexedNode, 1);
  made->number = ++state->appends;
  made->name_hash = hash_of(item->name);
  Node *node = &made->node;
  node->item = item;

  // Before the link, as a removal takes it back after: who walks the list never sees more items than are counted.
  count_of(self).fetch_add(1, std::memory_order_release);
  link_at(link_to(self, state->nodes.size())).store(node, std::memory_order_release);
  state->nodes.push_back(node);
  ++state->named.try_emplace(made->name_hash, NodesOfHash{node, 0}).first->second.count;
  return item;
}

// Here and below all is copied before anything is overwritten: what is given may be strings of the item itself.
void replace_all_but_name(PTZParameterItem *item, const PTZParameterItem *source) {
  ptz::Text text(g_strdup(source->text)), info(g_strdup(source->info)), range(g_strdup(source->range));
  item->code = source->code;
  give(item->text, std::move(text));
  replace_value(item, source->value);
  give(item->info, std::move(info));
  item->info_code = source->info_code;
  give(item->range, std::move(range));
  item->range_code = source->range_code;
}

struct Settings {
  const gchar *value;
  const gchar *info;
  guint32 info_code;
  const gchar *range;
  guint32 range_code;
  bool range_may_be_null;  // otherwise a NULL range keeps the old one, as a NULL info always does
};

void change(PTZParameterItem *item, const Settings &settings) {
  ptz::Text info(g_strdup(settings.info)), range(g_strdup(settings.range));
  replace_value(item, settings.value);
  if (info != nullptr) give(item->info, std::move(info));
  item->info_code = settings.info_code;
  if (range != nullptr || settings.range_may_be_null) give(item->range, std::move(range));
  item->range_code = settings.range_code;
}

PTZParameterItem *item_at(PTZParameterItemArray *self, guint32 index) {
  const auto &nodes = private_of(self)->nodes;
  return index < nodes.size() ? nodes[index]->item : nullptr;
}

// contract: an item whose name the caller changed is found by the new name, though by a walk along the list.
Node *node_named(PTZParameterItemArray *self, const gchar *name) {
  const auto *state = private_of(self);
  const auto hit = state->named.find(hash_of(name));
  if (hit != state->named.end() && has_name(hit->second.first, name)) return hit->second.first;
  const auto found = std::ranges::find_if(state->nodes, [name](const Node *node) { return has_name(node, name); });
  return found != state->nodes.end() ? *found : nullptr;
}

PTZParameterItem *item_named(PTZParameterItemArray *self, const gchar *name) {
  const Node *node = node_named(self, name);
  return node != nullptr ? node->item : nullptr;
}

// Called before the node leaves the list: the next node of its hash is searched for behind it.
void forget_name(PTZParameterItemArrayPrivate *state, const Node *node) {
  const auto found = state->named.find(name_hash_of(node));
  auto &[first, count] = found->second;
  if (--count == 0) {
    state->named.erase(found);
  } else if (first == node) {
    do first = first->next;
    while (name_hash_of(first) != name_hash_of(node));
  }
}

void remove_at(PTZParameterItemArray *self, gsize position) {
  auto *state = private_of(self);
  Node *node = state->nodes[position];
  forget_name(state, node);
  link_at(link_to(self, position)).store(node->next, std::memory_order_release);
  state->nodes.erase(state->nodes.begin() + static_cast<std::ptrdiff_t>(position));
  count_of(self).fetch_sub(1, std::memory_order_release);
  ++state->removals;
  free_node(node);
}

// Where the oldest node stands that has the number or a later one.
gsize position_from(const PTZParameterItemArrayPrivate *state, guint64 number) {
  return static_cast<gsize>(std::ranges::lower_bound(state->nodes, number, {}, number_of) - state->nodes.begin());
}

// ---- lock not held

template <typename Change>
PTZParameterItem *change_at(PTZParameterItemArray *self, guint32 index, Change apply) {
  const ptz::MutexLock lock(arrays_lock);
  PTZParameterItem *item = item_at(self, index);
  if (item != nullptr) apply(item);
  return item;
}

template <typename Change>
PTZParameterItem *change_named(PTZParameterItemArray *self, const gchar *name, Change apply) {
  if (count_of(self) == 0) return nullptr;
  const ptz::MutexLock lock(arrays_lock);
  PTZParameterItem *item = item_named(self, name);
  if (item != nullptr) apply(item);
  return item;
}

void warn_of_invalid_property(GObject *object, guint id, const GParamSpec *spec) {
  g_warning("%s:%d: invalid %s id %u for \"%s\" of type '%s' in '%s'", module_name, __LINE__, "property", id,
            spec->name, G_PARAM_SPEC_TYPE_NAME(spec), G_OBJECT_TYPE_NAME(object));
}

}  // namespace

static void ptz_parameter_item_array_set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
  if (id != property_name) return warn_of_invalid_property(object, id, spec);
  give(PTZ_PARAMETER_ITEM_ARRAY(object)->name, ptz::Text(g_value_dup_string(value)));
}

static void ptz_parameter_item_array_get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
  if (id != property_name) return warn_of_invalid_property(object, id, spec);
  g_value_set_string(value, PTZ_PARAMETER_ITEM_ARRAY(object)->name);
}

static void ptz_parameter_item_array_init(PTZParameterItemArray *self) { std::construct_at(private_of(self)); }

void ptz_parameter_item_array_finalize(GObject *object) {
  auto *self = PTZ_PARAMETER_ITEM_ARRAY(object);
  ptz_parameter_item_array_free(self);
  std::destroy_at(private_of(self));
  g_free(self->name);
  G_OBJECT_CLASS(ptz_parameter_item_array_parent_class)->finalize(object);
}

static void ptz_parameter_item_array_class_init(PTZParameterItemArrayClass *klass) {
  auto *object_class = G_OBJECT_CLASS(klass);
  object_class->set_property = ptz_parameter_item_array_set_property;
  object_class->get_property = ptz_parameter_item_array_get_property;
  object_class->finalize = ptz_parameter_item_array_finalize;
  g_mutex_init(&klass->mutex);
  arrays_lock = &klass->mutex;
  g_object_class_install_property(
      object_class, property_name,
      g_param_spec_string("name", "Group name", "PTZ framework parameter group name", nullptr, G_PARAM_READWRITE));
}

PTZParameterItemArray *ptz_parameter_item_array_new(const gchar *name) {
  return PTZ_PARAMETER_ITEM_ARRAY(g_object_new(PTZ_TYPE_PARAMETER_ITEM_ARRAY, "name", name, nullptr));
}

void ptz_parameter_item_array_free(PTZParameterItemArray *self) {
  g_return_if_fail(self != NULL);
  const ptz::MutexLock lock(arrays_lock);
  auto *state = private_of(self);
  self->items = nullptr;
  count_of(self) = 0;
  state->named.clear();
  std::for_each(state->nodes.begin(), state->nodes.end(), free_node);
  state->nodes.clear();
  ++state->removals;
}

PTZParameterItem *ptz_parameter_item_array_append(PTZParameterItemArray *self, const PTZParameterItem *item) {
  g_return_val_if_fail(self != NULL && item != NULL, NULL);
  const ptz::MutexLock lock(arrays_lock);
  return append_copy(self, item);
}

PTZParameterItem *ptz_parameter_item_array_add(PTZParameterItemArray *self, const PTZParameterItem *item) {
  g_return_val_if_fail(self != NULL && item != NULL, NULL);
  // In one go, so that two threads that add the same name do not both append it.
  const ptz::MutexLock lock(arrays_lock);
  PTZParameterItem *stored = item_named(self, item->name);
  if (stored == nullptr) return append_copy(self, item);
  replace_all_but_name(stored, item);
  return stored;
}

PTZParameterItem *ptz_parameter_item_array_get(PTZParameterItemArray *self, guint32 index) {
  g_return_val_if_fail(self != NULL, NULL);
  if (index > count_of(self)) return nullptr;
  const ptz::MutexLock lock(arrays_lock);
  return item_at(self, index);
}

PTZParameterItem *ptz_parameter_item_array_get_by_name(PTZParameterItemArray *self, const gchar *name) {
  g_return_val_if_fail(self != NULL, NULL);
  if (count_of(self) == 0) return nullptr;
  const ptz::MutexLock lock(arrays_lock);
  return item_named(self, name);
}

PTZParameterItem *ptz_parameter_item_array_set(PTZParameterItemArray *self, guint32 index, const gchar *value,
                                               const gchar *info, guint32 info_code, const gchar *range,
                                               guint32 range_code) {
  g_return_val_if_fail(self != NULL, NULL);
  g_return_val_if_fail(value != NULL, NULL);
  assert_fits_in(module_name, strlen(value) < PAR_VAL_MAX_LEN);
  if (index > count_of(self)) return nullptr;
  const Settings settings = {value, info, info_code, range, range_code, true};
  PTZParameterItem *item = change_at(self, index, [&](PTZParameterItem *found) { change(found, settings); });
  g_return_val_if_fail(item != NULL, NULL);
  return item;
}

PTZParameterItem *ptz_parameter_item_array_set_by_name(PTZParameterItemArray *self, const gchar *name,
                                                       const gchar *value, const gchar *info, guint32 info_code,
                                                       const gchar *range, guint32 range_code) {
  g_return_val_if_fail(self != NULL, NULL);
  g_return_val_if_fail(value != NULL, NULL);
  assert_fits_in(module_name, strlen(value) < PAR_VAL_MAX_LEN);
  const Settings settings = {value, info, info_code, range, range_code, false};
  PTZParameterItem *item = change_named(self, name, [&](PTZParameterItem *found) { change(found, settings); });
  g_return_val_if_fail(item != NULL, NULL);
  return item;
}

PTZParameterItem *ptz_parameter_item_array_set_range(PTZParameterItemArray *self, guint32 index, const gchar *range) {
  g_return_val_if_fail(self != NULL, NULL);
  if (index > count_of(self)) return nullptr;
  PTZParameterItem *item =
      change_at(self, index, [&](PTZParameterItem *found) { give(found->range, ptz::Text(g_strdup(range))); });
  g_return_val_if_fail(item != NULL, NULL);
  return item;
}

PTZParameterItem *ptz_parameter_item_array_set_range_by_name(PTZParameterItemArray *self, const gchar *name,
                                                             const gchar *range) {
  g_return_val_if_fail(self != NULL, NULL);
  PTZParameterItem *item =
      change_named(self, name, [&](PTZParameterItem *found) { give(found->range, ptz::Text(g_strdup(range))); });
  g_return_val_if_fail(item != NULL, NULL);
  return item;
}

PTZParameterItem *ptz_parameter_item_array_set_value_by_name(PTZParameterItemArray *self, const gchar *name,
                                                             const gchar *value) {
  g_return_val_if_fail(self != NULL, NULL);
  g_return_val_if_fail(value != NULL, NULL);
  PTZParameterItem *item = change_named(self, name, [&](PTZParameterItem *found) { replace_value(found, value); });
  g_return_val_if_fail(item != NULL, NULL);
  return item;
}

PTZParameterItemArray *ptz_parameter_item_array_remove(PTZParameterItemArray *self, guint32 index) {
  g_return_val_if_fail(self != NULL, NULL);
  if (index > count_of(self)) return self;
  const ptz::MutexLock lock(arrays_lock);
  if (index < private_of(self)->nodes.size()) remove_at(self, index);
  return self;
}

PTZParameterItemArray *ptz_parameter_item_array_remove_by_name(PTZParameterItemArray *self, const gchar *name) {
  g_return_val_if_fail(self != NULL, NULL);
  const ptz::MutexLock lock(arrays_lock);
  const Node *node = node_named(self, name);
  if (node != nullptr) remove_at(self, position_from(private_of(self), number_of(node)));
  return self;
}

PTZParameterItemArray *ptz_parameter_item_array_copy(PTZParameterItemArray *self) {
  g_return_val_if_fail(self != NULL, NULL);
  PTZParameterItemArray *copy = ptz_parameter_item_array_new(self->name);
  for (guint32 index = 0; index < count_of(self); ++index) {
    const ptz::MutexLock lock(arrays_lock);  // of both arrays
    const PTZParameterItem *item = item_at(self, index);
    if (item != nullptr) append_copy(copy, item);
  }
  return copy;
}

guint32 ptz_parameter_item_array_items(PTZParameterItemArray *self) {
  g_return_val_if_fail(self != NULL, 0);
  return count_of(self);
}

const gchar *ptz_parameter_item_array_name(PTZParameterItemArray *self) {
  g_return_val_if_fail(self != NULL, NULL);
  return self->name;
}

// Along the links, which can be followed while another thread appends.
gboolean ptz_parameter_item_array_map(PTZParameterItemArray *self, PTZParameterItemFunction function,
                                      gpointer user_data) {
  g_return_val_if_fail(self != NULL, FALSE);
  // contract: an empty array gives TRUE whatever the function.
  if (link_at(self->items).load(std::memory_order_acquire) == nullptr) return TRUE;
  g_return_val_if_fail(function != NULL, FALSE);
  const auto *state = private_of(self);
  const auto following = [](Node *&link) { return link_at(link).load(std::memory_order_acquire); };
  for (Node *node = following(self->items); node != nullptr;) {
    const guint64 number = number_of(node);
    const guint32 removals = state->removals;
    if (!function(node->item, user_data)) return FALSE;
    if (state->removals == removals) {
      node = following(node->next);
    } else {  // by the function itself
      const gsize position = position_from(state, number + 1);
      node = position < state->nodes.size() ? state->nodes[position] : nullptr;
    }
  }
  return TRUE;
}

gboolean ptz_parameter_item_array_map_remove(PTZParameterItemArray *self, PTZParameterItemFunction function,
                                             gpointer user_data) {
  g_return_val_if_fail(self != NULL, FALSE);
  g_return_val_if_fail(function != NULL, FALSE);
  const auto *state = private_of(self);
  for (gsize position = 0; position < state->nodes.size();) {
    const Node *node = state->nodes[position];
    const guint64 number = number_of(node);
    const gboolean unwanted = function(node->item, user_data);
    position = position_from(state, number);
    if (position == state->nodes.size() || number_of(state->nodes[position]) != number) continue;  // it has gone
    if (unwanted) {
      remove_at(self, position);
    } else {
      ++position;
    }
  }
  return TRUE;
}
