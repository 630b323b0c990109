// Library-internal: everything that needs the private members of object_t
// and datamodel_t, shared by the files of the data model. Not installed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/definition.h"
#include "orv/flat_table.h"
#include "orv/intrusive_list.h"
#include "orv/object.h"

// An instance filed under the hash of its key in its template's index.
struct object_key_slot_t {
    std::uint64_t hash = 0;
    object_t* instance = nullptr;
};
struct object_key_traits_t {
    static bool empty(const object_key_slot_t& slot) { return slot.instance == nullptr; }
    static std::uint64_t hash(const object_key_slot_t& slot) { return slot.hash; }
};

struct object_access {
    using instance_list_t = orv_intrusive_list_t<object_t, &object_t::links_>;

    static std::uint64_t keyHash(std::string_view key) {
        return std::hash<std::string_view>{}(key);
    }
    // The template's instance with that key, or null.
    static object_t* byKey(const object_t* templateObject, std::string_view key);

    // Building the tree (object_tree.cpp).
    static std::unique_ptr<object_t> make(datamodel_t* model, object_t* parent,
                                          const object_definition_t* definition,
                                          object_t::kind_t kind, std::string name);
    static std::unique_ptr<object_t> makeRoot(datamodel_t* model);
    static std::optional<std::string> load(datamodel_t* model, std::string_view json);
    static object_t* createInstance(object_t* templateObject, std::int64_t index,
                                    std::optional<std::string_view> key);
    // Runs the destroy handlers (children first, each exactly once) and
    // releases the user data of everything at and below object.
    static void destroyTree(object_t* object);
    // Destroys an instance and unlinks it from its template.
    static void removeInstance(object_t* instance, bool notify);
    static void destroyAll(datamodel_t* model);

    // Pending changes (object_commit.cpp).
    static void commit(object_t* object);
    static void rollback(object_t* object);
    static bool markDeleted(object_t* object);

    // Walking and reading (object.cpp).
    static object_t* firstInstance(const object_t* templateObject);
    static object_t* nextInstance(const object_t* instance);
    static std::size_t instanceCount(const object_t* templateObject);
    // The position of the named parameter, or the parameter count.
    static std::size_t parameterIndex(const object_t* object, std::string_view name);

    // Parameters and user data (object_parameter.cpp). value reads the
    // pending value unless committed is set.
    static const variant_t* value(const object_t* object, std::string_view name, bool committed);
    static bool setPending(object_t* object, std::size_t at, variant_t value);
    static void setUserData(object_t* object, void* data, void (*release)(void*));
    static void* userData(const object_t* object) { return object->userData_.get(); }
    static void setDestroyHandler(object_t* object, object_destroy_handler_t handler) {
        object->destroyHandler_ = handler;
    }

  private:
    // A plain object or a template below parent, with everything below it.
    static std::unique_ptr<object_t> build(datamodel_t* model, object_t* parent,
                                           const object_definition_t* definition);
    // Parameters and child objects of a plain object or an instance.
    static void fillFromDefinition(object_t* object, const object_definition_t* definition);
    static bool indexTaken(const object_t* templateObject, std::uint32_t index);
    // The index of a new instance: the one asked for or, for -1, the next free
    // one. 0, with the error set, when there is none.
    static std::uint32_t chooseIndex(const object_t* templateObject, std::int64_t index,
                                     bool named);
    static object_t* attachInstance(object_t* templateObject, std::uint32_t index,
                                    std::string name);

    // True when every instance at or above object has been committed.
    static bool published(const object_t* object);
    // Makes the pending slots of an object on its first write.
    static std::optional<variant_t>* pendingSlots(object_t* object);
    static void applyPending(object_t* object, std::vector<std::string>* changed);
    // Applies pending values of the plain objects below object, silently.
    static void applyPlainSubtree(object_t* object);
    // Calls visit on each instance of object, if it is a template; visit may
    // destroy the instance it is given.
    template <typename Visit>
    static void eachInstance(object_t* object, Visit visit);
};

// What only a template has: its instances in creation order, which it owns,
// and the index by key.
struct object_instances_t {
    object_instances_t() = default;
    object_instances_t(const object_instances_t&) = delete;
    object_instances_t& operator=(const object_instances_t&) = delete;
    ~object_instances_t();

    object_access::instance_list_t list;
    orv_flat_table_t<object_key_slot_t, object_key_traits_t> byKey;
    std::uint32_t nextIndex = 1;
};

template <typename Visit>
void object_access::eachInstance(object_t* object, Visit visit) {
    if (!object->instances_) {
        return;
    }
    for (object_t* instance = object->instances_->list.front(); instance != nullptr;) {
        object_t* next = instance_list_t::next(*instance);
        visit(instance);
        instance = next;
    }
}
