/* ptz_parameter_item_array.h - PTZParameterItemArray, one named group of parameters.
 *
 * Items stand in the order in which they were added; indexes begin at 0. The array owns deep copies of all that is
 * stored in it. What it hands out are its own records: they are valid until they are removed or the array goes, and
 * must not be freed.
 *
 * Every string that a function takes is borrowed, and may be a string of the array's own items.
 *
 * One lock guards the items of all arrays of the process, those of subclasses included. It is held during each single
 * operation, except by map, map_remove, items and name, and never while a function of the caller runs. Two threads may
 * add, change and look up at once; but items are used after the lock is released, so a thread that removes items makes
 * sure that no other one is using them.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

#define PTZ_TYPE_PARAMETER_ITEM_ARRAY (ptz_parameter_item_array_get_type ())
#define PTZ_PARAMETER_ITEM_ARRAY(o) \
  (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_PARAMETER_ITEM_ARRAY, PTZParameterItemArray))
#define PTZ_PARAMETER_ITEM_ARRAY_CLASS(k) \
  (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_PARAMETER_ITEM_ARRAY, PTZParameterItemArrayClass))
#define PTZ_IS_PARAMETER_ITEM_ARRAY(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_PARAMETER_ITEM_ARRAY))
#define PTZ_IS_PARAMETER_ITEM_ARRAY_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_PARAMETER_ITEM_ARRAY))
#define PTZ_PARAMETER_ITEM_ARRAY_GET_CLASS(o) \
  (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_PARAMETER_ITEM_ARRAY, PTZParameterItemArrayClass))

/**
 * PAR_VAL_MAX_LEN:
 *
 * The bytes of a value, with its NUL.
 */
#define PAR_VAL_MAX_LEN 64

typedef struct _PTZParameterItemNode PTZParameterItemNode;
typedef struct _PTZParameterItemArray PTZParameterItemArray;
typedef struct _PTZParameterItemArrayClass PTZParameterItemArrayClass;

/**
 * PTZParameterItem:
 * @code: a code of the caller's
 * @name: (nullable): what the item is looked up by. The array does not change it after the append. A caller that does
 *   frees the old name with g_free() and stores one that was allocated with g_malloc(). Functions that take a name then
 *   find the item by the new one, after a walk along the list; an item that was appended under that name is found first
 * @text: (nullable): a text of the caller's
 * @value: the value. In an array it always ends in a NUL; one that is given to an array need not
 * @info: (nullable): a text of the caller's
 * @info_code: a code of the caller's
 * @range: (nullable): which values are allowed
 * @range_code: a code of the caller's
 *
 * One parameter. The array interprets nothing but the name.
 */
typedef struct {
  guint32 code;
  gchar *name;
  gchar *text;
  gchar value[PAR_VAL_MAX_LEN];
  gchar *info;
  guint32 info_code;
  gchar *range;
  guint32 range_code;
} PTZParameterItem;

/**
 * PTZParameterItemNode:
 * @next: (nullable): the next one
 * @item: the item
 *
 * A link of the list of items.
 */
struct _PTZParameterItemNode {
  PTZParameterItemNode *next;
  PTZParameterItem *item;
};

/**
 * PTZParameterItemArray:name:
 *
 * The name of the group.
 */

/**
 * PTZParameterItemArray:
 * @name: (nullable): the name of the group
 * @items: (nullable): the first item's node
 * @count: how many items there are
 *
 * A group of parameters. Its property "name" (readable and writable, a string) is the name of the group. The list is
 * there to be read: only the functions below keep it in step with what speeds up their look-ups.
 */
struct _PTZParameterItemArray {
  GObject parent_instance;
  gchar *name;
  PTZParameterItemNode *items;
  guint32 count;
};

/**
 * PTZParameterItemArrayClass:
 * @mutex: the lock of all arrays, in the class of #PTZParameterItemArray itself; the copies in the classes of its
 *   subclasses are not used
 */
struct _PTZParameterItemArrayClass {
  GObjectClass parent_class;
  GMutex mutex;
};

/**
 * PTZParameterItemFunction:
 * @item: an item of the array
 * @user_data: what was given with the function
 *
 * Called for an item, with no lock held. It may change the array; items that it removes are not visited, those that it
 * adds are.
 *
 * Returns: what the caller of the function asks
 */
typedef gboolean (*PTZParameterItemFunction) (PTZParameterItem *item, gpointer user_data);

/**
 * ptz_parameter_item_array_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZParameterItemArray"
 */
PTZ_API GType ptz_parameter_item_array_get_type (void);

/**
 * ptz_parameter_item_array_new:
 * @name: (nullable): the name of the group
 *
 * Thread: any.
 *
 * Returns: (transfer full): a new, empty array
 */
PTZ_API PTZParameterItemArray *ptz_parameter_item_array_new (const gchar *name);

/**
 * ptz_parameter_item_array_free: (skip)
 * @self: an array
 *
 * Removes all items. The array itself stays; it is released with g_object_unref().
 *
 * Thread: any.
 */
PTZ_API void ptz_parameter_item_array_free (PTZParameterItemArray *self);

/**
 * ptz_parameter_item_array_append: (skip)
 * @self: an array
 * @item: what to copy; of its value at most 63 characters are kept
 *
 * Adds an item at the end, also where there is one of that name: the first of them is found by name.
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the new item; `NULL` only for a `NULL` argument
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_append (PTZParameterItemArray *self, const PTZParameterItem *item);

/**
 * ptz_parameter_item_array_add: (skip)
 * @self: an array
 * @item: what to copy; of its value at most 63 characters are kept
 *
 * Replaces all of the first item of that name but the name, in its place, or adds an item at the end where there is
 * none.
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the stored item; `NULL` only for a `NULL` argument
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_add (PTZParameterItemArray *self, const PTZParameterItem *item);

/**
 * ptz_parameter_item_array_get: (skip)
 * @self: an array
 * @index: an index
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the item; `NULL` for none
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_get (PTZParameterItemArray *self, guint32 index);

/**
 * ptz_parameter_item_array_get_by_name: (skip)
 * @self: an array
 * @name: (nullable): a name; `NULL` finds an item without one
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the first item of that name; `NULL` for none
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_get_by_name (PTZParameterItemArray *self, const gchar *name);

/**
 * ptz_parameter_item_array_set: (skip)
 * @self: an array
 * @index: an index; one equal to the count gives a critical, one beyond it nothing
 * @value: the new value, of at most 63 characters; a longer one aborts
 * @info: (nullable): the new info; `NULL` keeps the old one
 * @info_code: the new code
 * @range: (nullable): the new range, also where it is `NULL`
 * @range_code: the new code
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the changed item; `NULL` for none
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_set (PTZParameterItemArray *self, guint32 index, const gchar *value,
                                                        const gchar *info, guint32 info_code, const gchar *range,
                                                        guint32 range_code);

/**
 * ptz_parameter_item_array_set_by_name: (skip)
 * @self: an array
 * @name: (nullable): the name of an item; one that is not there gives a critical
 * @value: the new value, of at most 63 characters; a longer one aborts
 * @info: (nullable): the new info; `NULL` keeps the old one
 * @info_code: the new code
 * @range: (nullable): the new range; `NULL` keeps the old one, unlike in ptz_parameter_item_array_set()
 * @range_code: the new code
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the changed item; `NULL` for none
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_set_by_name (PTZParameterItemArray *self, const gchar *name,
                                                                const gchar *value, const gchar *info,
                                                                guint32 info_code, const gchar *range,
                                                                guint32 range_code);

/**
 * ptz_parameter_item_array_set_range: (skip)
 * @self: an array
 * @index: an index; one equal to the count gives a critical, one beyond it nothing
 * @range: (nullable): the new range
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the changed item; `NULL` for none
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_set_range (PTZParameterItemArray *self, guint32 index,
                                                              const gchar *range);

/**
 * ptz_parameter_item_array_set_range_by_name: (skip)
 * @self: an array
 * @name: (nullable): the name of an item; one that is not there gives a critical
 * @range: (nullable): the new range
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the changed item; `NULL` for none
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_set_range_by_name (PTZParameterItemArray *self, const gchar *name,
                                                                      const gchar *range);

/**
 * ptz_parameter_item_array_set_value_by_name: (skip)
 * @self: an array
 * @name: (nullable): the name of an item; one that is not there gives a critical
 * @value: the new value; of a longer one the first 63 characters are kept
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): the changed item; `NULL` for none
 */
PTZ_API PTZParameterItem *ptz_parameter_item_array_set_value_by_name (PTZParameterItemArray *self, const gchar *name,
                                                                      const gchar *value);

/**
 * ptz_parameter_item_array_remove: (skip)
 * @self: an array
 * @index: an index; one that is not there changes nothing
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): @self
 */
PTZ_API PTZParameterItemArray *ptz_parameter_item_array_remove (PTZParameterItemArray *self, guint32 index);

/**
 * ptz_parameter_item_array_remove_by_name: (skip)
 * @self: an array
 * @name: (nullable): a name; the first item of that name goes, or nothing changes
 *
 * Thread: any.
 *
 * Returns: (transfer none) (nullable): @self
 */
PTZ_API PTZParameterItemArray *ptz_parameter_item_array_remove_by_name (PTZParameterItemArray *self,
                                                                        const gchar *name);

/**
 * ptz_parameter_item_array_copy:
 * @self: an array
 *
 * The lock is taken for one item at a time: where another thread changes @self meanwhile, the copy may hold some of
 * both states.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): a new #PTZParameterItemArray of the same name with copies of all items; `NULL`
 *   only for a `NULL` argument
 */
PTZ_API PTZParameterItemArray *ptz_parameter_item_array_copy (PTZParameterItemArray *self);

/**
 * ptz_parameter_item_array_items:
 * @self: an array
 *
 * Thread: any.
 *
 * Returns: how many items there are; 0 for a `NULL` argument
 */
PTZ_API guint32 ptz_parameter_item_array_items (PTZParameterItemArray *self);

/**
 * ptz_parameter_item_array_name:
 * @self: an array
 *
 * Thread: any, while nobody sets the name.
 *
 * Returns: (transfer none) (nullable): the name of the group
 */
PTZ_API const gchar *ptz_parameter_item_array_name (PTZParameterItemArray *self);

/**
 * ptz_parameter_item_array_map: (skip)
 * @self: an array
 * @function: (scope call): called for each item in order; `FALSE` stops. An empty array ignores it, even if it is
 *   `NULL`
 * @user_data: passed to @function; borrowed
 *
 * Thread: any, while no other thread removes items; takes no lock.
 *
 * Returns: `TRUE` when every call returned `TRUE`, and always for an empty array
 */
PTZ_API gboolean ptz_parameter_item_array_map (PTZParameterItemArray *self, PTZParameterItemFunction function,
                                               gpointer user_data);

/**
 * ptz_parameter_item_array_map_remove: (skip)
 * @self: an array
 * @function: (scope call): called for each item in order; `TRUE` removes the item
 * @user_data: passed to @function; borrowed
 *
 * Thread: any, while no other thread uses @self; takes no lock.
 *
 * Returns: `TRUE`; `FALSE` only for a `NULL` argument
 */
PTZ_API gboolean ptz_parameter_item_array_map_remove (PTZParameterItemArray *self, PTZParameterItemFunction function,
                                                      gpointer user_data);

/**
 * ptz_parameter_item_array_finalize:
 * @object: the array, whose last reference has gone
 *
 * The class's own `finalize`: frees all items and the name. Chaining up reaches it from a subclass; nobody else calls it.
 *
 * Thread: the one that ends the object.
 */
PTZ_API void ptz_parameter_item_array_finalize (GObject *object);

G_END_DECLS
