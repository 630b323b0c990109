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
#include "orv/object.h"

struct object_access {
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
    static const object_parameter_t* findParameter(const object_t* object, std::string_view name);

    // User data (object_parameter.cpp).
    static void setUserData(object_t* object, void* data, void (*release)(void*));
    static void* userData(const object_t* object) { return object->userData_.get(); }
    static void setDestroyHandler(object_t* object, object_destroy_handler_t handler) {
        object->destroyHandler_ = handler;
    }

  private:
    static void addParameters(object_t* object, const object_definition_t* definition);
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
    static void applyPending(object_t* object, std::vector<std::string>* changed);
    // Applies pending values of the plain objects below object, silently.
    static void applyPlainSubtree(object_t* object);
};
