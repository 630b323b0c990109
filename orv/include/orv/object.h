// The data model: a tree of objects loaded from a definition.
//
// Objects are plain objects, template objects or instances of a template.
// An instance has a key that is unique under its template and is the last
// element of its path ("Scheduler.Types.Light"). Each object has the
// parameters its definition declares. A new parameter value stays pending
// until object_commit and is dropped by object_rollback; readers inside the
// process see their own pending writes, the bus sees committed values only.
//
// Instances are created pending as well: the first commit publishes them,
// a rollback removes them. object_delete marks an instance; the commit that
// follows destroys it with everything below it. The destroy handler of every
// destroyed instance runs exactly once, children before parents.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orv/intrusive_list.h"
#include "orv/variant.h"

class object_t;
struct object_definition_t;
struct function_definition_t;

using object_destroy_handler_t = void (*)(object_t* object);

// Path attributes of object_path and object_getObject. Paths are always built
// from keys; the value 0 is what the plug-in passes.
enum : std::uint32_t { path_attr_default = 0 };

// Observers see committed changes only: the bus side of the host uses them to
// publish instances and parameters.
class object_observer_t {
  public:
    virtual ~object_observer_t() = default;
    virtual void instanceAdded(object_t& instance) = 0;
    // Called before the instance is destroyed; its path is still valid.
    virtual void instanceRemoved(object_t& instance) = 0;
    virtual void parametersChanged(object_t& object, const std::vector<std::string>& names) = 0;
};

class datamodel_t;
struct object_instances_t;

// An object is one allocation: its committed parameter values follow it in
// the same block, in definition order. A model holds hundreds of thousands of
// instances, so everything only templates need (their instances and the
// index by key) lives apart, and an instance is linked into its template's
// list through links of its own instead of a list node.
class object_t {
  public:
    enum class kind_t : std::uint8_t { plain, template_object, instance };

    object_t(const object_t&) = delete;
    object_t& operator=(const object_t&) = delete;
    ~object_t();
    // The block holds the parameter values as well: it goes back whole.
    static void operator delete(void* block) { ::operator delete(block); }

    kind_t kind() const { return kind_; }
    const std::string& name() const { return name_; }
    object_t* parent() const { return parent_; }
    datamodel_t* datamodel() const { return datamodel_; }
    const object_definition_t* definition() const { return definition_; }
    bool isCommitted() const { return committed_; }
    bool isDeleted() const { return deleted_; }

    // Children in definition order (not instances).
    const std::vector<std::unique_ptr<object_t>>& children() const { return children_; }
    object_t* child(std::string_view name) const;
    // The template's instance with that key; null for other objects.
    object_t* instance(std::string_view key) const;
    // The committed values, in the order of the definition's parameters.
    std::span<const variant_t> committedValues() const {
        return {reinterpret_cast<const variant_t*>(this + 1), parameterCount_};
    }

  private:
    friend class datamodel_t;
    friend struct object_access;
    object_t(datamodel_t* model, object_t* parent, const object_definition_t* definition,
             kind_t kind, std::string name);
    variant_t* values() { return reinterpret_cast<variant_t*>(this + 1); }

    datamodel_t* datamodel_;
    object_t* parent_;
    const object_definition_t* definition_;
    std::string name_;
    std::uint32_t index_ = 0;
    std::uint32_t parameterCount_ = 0;
    kind_t kind_;
    bool committed_ = false;
    bool deleted_ = false;
    std::vector<std::unique_ptr<object_t>> children_;
    orv_list_links_t<object_t> links_;
    std::unique_ptr<object_instances_t> instances_;
    // New values not yet committed, one slot per parameter; present only
    // between a write and the commit or rollback that follows it.
    std::unique_ptr<std::optional<variant_t>[]> pending_;
    std::unique_ptr<void, void (*)(void*)> userData_{nullptr, [](void*) {}};
    object_destroy_handler_t destroyHandler_ = nullptr;
};

// The model owns the definitions and the object tree. Its nameless root holds
// the root objects ("Scheduler"); paths never name the root.
class datamodel_t {
  public:
    datamodel_t();
    ~datamodel_t();
    datamodel_t(const datamodel_t&) = delete;
    datamodel_t& operator=(const datamodel_t&) = delete;

    object_t* root() { return root_.get(); }
    // The definitions loaded so far, in loading order.
    const std::vector<std::unique_ptr<object_definition_t>>& definitions() const {
        return definitions_;
    }
    void setObserver(object_observer_t* observer) { observer_ = observer; }
    object_observer_t* observer() const { return observer_; }

    // Loads a JSON definition and creates its objects below the root. Returns
    // an error text, or nullopt on success. See definition.h for the format.
    std::optional<std::string> load(std::string_view json);
    std::optional<std::string> loadFile(const std::string& path);

    // Destroys every instance (destroy handlers included) and every object.
    // The host calls it before it unloads the plug-ins whose handlers the
    // instances carry.
    void clear();

  private:
    friend struct object_access;
    std::vector<std::unique_ptr<object_definition_t>> definitions_;
    std::unique_ptr<object_t> root_;
    object_observer_t* observer_ = nullptr;
};

// Lookups. object_getObject walks a relative, dot-separated path below
// parent (children by name, instances by key). It returns the deepest object
// reached and sets *match to whether the whole path was consumed; when not
// even the first element matches it returns null.
object_t* object_getObject(object_t* parent, std::string_view path, std::uint32_t attributes,
                           bool* match);
object_t* object_parent(const object_t* object);
std::optional<std::string> object_name(const object_t* object, std::uint32_t attributes);
std::string object_path(const object_t* object, std::uint32_t attributes);
object_t* object_firstInstance(const object_t* templateObject);
object_t* object_nextInstance(const object_t* instance);
std::size_t object_instanceCount(const object_t* templateObject);

// Instances. index -1 lets the model choose the next free index; a key that
// is already used under the template (pending instances included) is refused.
// A missing key gives the instance its index, in decimal, as its name.
object_t* object_createInstance(object_t* templateObject, std::int64_t index,
                                std::optional<std::string_view> key);
bool object_delete(object_t* object);
bool object_commit(object_t* object);
bool object_rollback(object_t* object);

// Parameters. The value read is the pending one if there is one. Setters
// convert to the declared type and fail (orv_error set) when the object has no
// such parameter or the value does not convert.
const variant_t* object_parameterValue(const object_t* object, std::string_view name);
const variant_t* object_parameterCommittedValue(const object_t* object, std::string_view name);
bool object_parameterSetValue(object_t* object, std::string_view name, const variant_t* value);
bool object_parameterSetCharValue(object_t* object, std::string_view name, std::string_view value);
bool object_parameterSetStringValue(object_t* object, std::string_view name,
                                    const std::string* value);
bool object_parameterSetBoolValue(object_t* object, std::string_view name, bool value);
bool object_parameterSetUInt32Value(object_t* object, std::string_view name, std::uint32_t value);
// Takes a broken-down local time; the parameter holds seconds since the epoch.
bool object_parameterSetDateTimeValue(object_t* object, std::string_view name,
                                      const struct tm* value);

// User data. The object owns what is attached: replacing it or destroying the
// object releases it (after the destroy handler has run).
template <typename T>
void object_setUserData(object_t* object, std::unique_ptr<T> data);
template <typename T>
T* object_getUserData(const object_t* object);
void object_clearUserData(object_t* object);
bool object_setDestroyHandler(object_t* object, object_destroy_handler_t handler);

// Implementation of the user-data templates.
void object_setUserDataRaw(object_t* object, void* data, void (*release)(void*));
void* object_getUserDataRaw(const object_t* object);

template <typename T>
void object_setUserData(object_t* object, std::unique_ptr<T> data) {
    object_setUserDataRaw(object, data.release(), [](void* p) { delete static_cast<T*>(p); });
}

template <typename T>
T* object_getUserData(const object_t* object) {
    return static_cast<T*>(object_getUserDataRaw(object));
}
