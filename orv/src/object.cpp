// The data model: objects, templates, instances, pending parameter values.
#include "orv/object.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <limits>
#include <sstream>
#include <utility>

#include "orv/definition.h"
#include "orv/error.h"

namespace {
void noRelease(void*) {}
}  // namespace

// Everything that needs the private members of object_t and datamodel_t.
struct object_access {
    static std::uint64_t keyHash(std::string_view key) {
        return std::hash<std::string_view>{}(key);
    }

    // The template's instance with that key, or null.
    static object_t* byKey(const object_t* templateObject, std::string_view key) {
        const std::uint64_t hash = keyHash(key);
        object_t* found = nullptr;
        // The stored hash spares reading the instances of other keys.
        templateObject->byKey_.scan(hash, [&](std::size_t, const object_key_slot_t& slot) {
            if (slot.hash == hash && slot.instance->name_ == key) {
                found = slot.instance;
            }
            return found != nullptr;
        });
        return found;
    }

    static std::unique_ptr<object_t> make(datamodel_t* model, object_t* parent,
                                          const object_definition_t* definition,
                                          object_t::kind_t kind, std::string name) {
        return std::unique_ptr<object_t>(
            new object_t(model, parent, definition, kind, std::move(name)));
    }

    static void addParameters(object_t* object, const object_definition_t* definition) {
        object->parameters_.reserve(definition->parameters.size());
        for (const auto& parameter : definition->parameters) {
            object->parameters_.push_back(
                object_parameter_t{&parameter, parameter.defaultValue, nullptr});
        }
    }

    // A plain object or a template below parent, with everything below it.
    static std::unique_ptr<object_t> build(datamodel_t* model, object_t* parent,
                                           const object_definition_t* definition) {
        auto kind =
            definition->isTemplate ? object_t::kind_t::template_object : object_t::kind_t::plain;
        auto object = make(model, parent, definition, kind, definition->name);
        object->committed_ = true;
        if (kind == object_t::kind_t::plain) {
            fillFromDefinition(object.get(), definition);
        }
        return object;
    }

    // Parameters and child objects of a plain object or an instance.
    static void fillFromDefinition(object_t* object, const object_definition_t* definition) {
        addParameters(object, definition);
        object->children_.reserve(definition->objects.size());
        for (const auto& child : definition->objects) {
            object->children_.push_back(build(object->datamodel_, object, child.get()));
        }
    }

    static bool indexTaken(const object_t* templateObject, std::uint32_t index) {
        for (const auto& instance : templateObject->instances_) {
            if (instance->index_ == index) {
                return true;
            }
        }
        return false;
    }

    static object_t* createInstance(object_t* templateObject, std::int64_t index,
                                    std::optional<std::string_view> key) {
        if (!templateObject || templateObject->kind_ != object_t::kind_t::template_object ||
            !templateObject->definition_) {
            orv_setError(orv_error_invalid_argument);
            return nullptr;
        }
        if (index == 0 || index < -1 ||
            index > static_cast<std::int64_t>(std::numeric_limits<std::uint32_t>::max())) {
            orv_setError(orv_error_invalid_argument);
            return nullptr;
        }
        std::uint32_t chosen;
        if (index == -1) {
            if (templateObject->nextIndex_ == 0) {  // wrapped around: no index left
                orv_setError(orv_error_invalid_argument);
                return nullptr;
            }
            chosen = templateObject->nextIndex_;
            if (!key) {
                // The name comes from the index: skip indices whose text is a key already.
                while (byKey(templateObject, std::to_string(chosen)) != nullptr &&
                       chosen < std::numeric_limits<std::uint32_t>::max()) {
                    ++chosen;
                }
            }
        } else {
            chosen = static_cast<std::uint32_t>(index);
            if (indexTaken(templateObject, chosen)) {
                orv_setError(orv_error_duplicate);
                return nullptr;
            }
        }
        std::string name = key ? std::string(*key) : std::to_string(chosen);
        if (name.empty() || name.find('.') != std::string::npos) {
            orv_setError(orv_error_invalid_argument);
            return nullptr;
        }
        if (byKey(templateObject, name) != nullptr) {
            orv_setError(orv_error_duplicate);
            return nullptr;
        }
        auto instance =
            make(templateObject->datamodel_, templateObject, templateObject->definition_,
                 object_t::kind_t::instance, std::move(name));
        instance->index_ = chosen;
        fillFromDefinition(instance.get(), templateObject->definition_);
        object_t* raw = instance.get();
        templateObject->instances_.push_back(std::move(instance));
        raw->self_ = std::prev(templateObject->instances_.end());
        templateObject->byKey_.insert({keyHash(raw->name_), raw});
        if (chosen >= templateObject->nextIndex_) {
            // 0 after the last index: no automatic index is left.
            templateObject->nextIndex_ = chosen + 1;
        }
        return raw;
    }

    // Runs the destroy handlers (children first, each exactly once) and
    // releases the user data of everything at and below object.
    static void destroyTree(object_t* object) {
        for (auto& child : object->children_) {
            destroyTree(child.get());
        }
        for (auto it = object->instances_.begin(); it != object->instances_.end(); ++it) {
            destroyTree(it->get());
        }
        if (auto handler = object->destroyHandler_) {
            object->destroyHandler_ = nullptr;
            handler(object);
        }
        object->userData_.reset();
    }

    // Destroys an instance and unlinks it from its template.
    static void removeInstance(object_t* instance, bool notify) {
        object_observer_t* observer =
            instance->datamodel_ ? instance->datamodel_->observer_ : nullptr;
        if (notify && observer && instance->committed_) {
            observer->instanceRemoved(*instance);
        }
        destroyTree(instance);
        object_t* templateObject = instance->parent_;
        const std::size_t filed = templateObject->byKey_.scan(
            keyHash(instance->name_),
            [&](std::size_t, const object_key_slot_t& slot) { return slot.instance == instance; });
        if (filed != templateObject->byKey_.npos) {
            templateObject->byKey_.eraseAt(filed);
        }
        templateObject->instances_.erase(instance->self_);
    }

    // True when every instance at or above object has been committed.
    static bool published(const object_t* object) {
        for (; object; object = object->parent_) {
            if (object->kind_ == object_t::kind_t::instance && !object->committed_) {
                return false;
            }
        }
        return true;
    }

    static void applyPending(object_t* object, std::vector<std::string>* changed) {
        for (auto& parameter : object->parameters_) {
            if (!parameter.pending) {
                continue;
            }
            if (changed && !(parameter.value == *parameter.pending)) {
                changed->push_back(parameter.definition->name);
            }
            parameter.value = std::move(*parameter.pending);
            parameter.pending.reset();
        }
    }

    // Applies pending values of the plain objects below object, silently.
    static void applyPlainSubtree(object_t* object) {
        for (auto& child : object->children_) {
            applyPending(child.get(), nullptr);
            applyPlainSubtree(child.get());
        }
    }

    static void commit(object_t* object) {
        if (object->kind_ == object_t::kind_t::instance && object->deleted_) {
            removeInstance(object, true);
            return;
        }
        object_observer_t* observer = object->datamodel_ ? object->datamodel_->observer_ : nullptr;
        bool parentPublished = published(object->parent_);
        if (object->kind_ == object_t::kind_t::instance && !object->committed_) {
            applyPending(object, nullptr);
            if (parentPublished) {
                // The instance goes out with the values of everything it holds.
                applyPlainSubtree(object);
                object->committed_ = true;
                if (observer) {
                    observer->instanceAdded(*object);
                }
            }
        } else {
            std::vector<std::string> changed;
            applyPending(object, &changed);
            if (!changed.empty() && parentPublished && observer) {
                observer->parametersChanged(*object, changed);
            }
        }
        for (std::size_t i = 0; i < object->children_.size(); ++i) {
            commit(object->children_[i].get());
        }
        for (auto it = object->instances_.begin(); it != object->instances_.end();) {
            object_t* instance = it->get();
            ++it;
            commit(instance);
        }
    }

    static void rollback(object_t* object) {
        if (object->kind_ == object_t::kind_t::instance && !object->committed_) {
            removeInstance(object, false);
            return;
        }
        object->deleted_ = false;
        for (auto& parameter : object->parameters_) {
            parameter.pending.reset();
        }
        for (std::size_t i = 0; i < object->children_.size(); ++i) {
            rollback(object->children_[i].get());
        }
        for (auto it = object->instances_.begin(); it != object->instances_.end();) {
            object_t* instance = it->get();
            ++it;
            rollback(instance);
        }
    }

    static bool markDeleted(object_t* object) {
        if (!object) {
            orv_setError(orv_error_invalid_argument);
            return false;
        }
        if (object->kind_ != object_t::kind_t::instance) {
            orv_setError(orv_error_not_an_instance);
            return false;
        }
        object->deleted_ = true;
        return true;
    }

    static object_t* firstInstance(const object_t* templateObject) {
        if (!templateObject || templateObject->instances_.empty()) {
            return nullptr;
        }
        return templateObject->instances_.front().get();
    }

    static object_t* nextInstance(const object_t* instance) {
        if (!instance || instance->kind_ != object_t::kind_t::instance || !instance->parent_) {
            return nullptr;
        }
        auto it = std::next(instance->self_);
        return it == instance->parent_->instances_.end() ? nullptr : it->get();
    }

    static const object_parameter_t* findParameter(const object_t* object, std::string_view name) {
        for (const auto& parameter : object->parameters_) {
            if (parameter.definition->name == name) {
                return &parameter;
            }
        }
        return nullptr;
    }

    static void setUserData(object_t* object, void* data, void (*release)(void*)) {
        object->userData_ =
            std::unique_ptr<void, void (*)(void*)>(data, release ? release : noRelease);
    }
    static void* userData(const object_t* object) { return object->userData_.get(); }
    static void setDestroyHandler(object_t* object, object_destroy_handler_t handler) {
        object->destroyHandler_ = handler;
    }

    static std::unique_ptr<object_t> makeRoot(datamodel_t* model) {
        auto root = make(model, nullptr, nullptr, object_t::kind_t::plain, std::string());
        root->committed_ = true;
        return root;
    }

    static std::optional<std::string> load(datamodel_t* model, std::string_view json) {
        std::string error;
        auto definition = definition_parse(json, &error);
        if (!definition) {
            return error;
        }
        object_t* root = model->root_.get();
        for (std::size_t i = 0; i < definition->objects.size(); ++i) {
            const auto& name = definition->objects[i]->name;
            if (root->child(name)) {
                return "objects[" + std::to_string(i) + "]: object \"" + name + "\" exists already";
            }
        }
        for (const auto& object : definition->objects) {
            root->children_.push_back(build(model, root, object.get()));
        }
        model->definitions_.push_back(std::move(definition));
        return std::nullopt;
    }

    static void destroyAll(datamodel_t* model) {
        if (model->root_) {
            destroyTree(model->root_.get());
            model->root_.reset();
        }
        model->definitions_.clear();
    }
};

// ---------------------------------------------------------------- object_t

object_t::object_t(datamodel_t* model, object_t* parent, const object_definition_t* definition,
                   kind_t kind, std::string name)
    : datamodel_(model),
      parent_(parent),
      definition_(definition),
      kind_(kind),
      name_(std::move(name)) {}

object_t::~object_t() = default;

object_t* object_t::child(std::string_view name) const {
    for (const auto& child : children_) {
        if (child->name_ == name) {
            return child.get();
        }
    }
    return nullptr;
}

object_t* object_t::instance(std::string_view key) const {
    return object_access::byKey(this, key);
}

object_parameter_t* object_t::parameter(std::string_view name) {
    return const_cast<object_parameter_t*>(object_access::findParameter(this, name));
}

// ------------------------------------------------------------- datamodel_t

datamodel_t::datamodel_t() : root_(object_access::makeRoot(this)) {}

datamodel_t::~datamodel_t() {
    object_access::destroyAll(this);
}

std::optional<std::string> datamodel_t::load(std::string_view json) {
    try {
        return object_access::load(this, json);
    } catch (const std::exception& e) {
        return std::string("cannot load the definition: ") + e.what();
    } catch (...) {
        return std::string("cannot load the definition");
    }
}

std::optional<std::string> datamodel_t::loadFile(const std::string& path) {
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (!file) {
        int code = errno;
        return "cannot read " + path + ": " + (code ? std::strerror(code) : "open failed");
    }
    std::ostringstream content;
    content << file.rdbuf();
    if (file.bad()) {
        return "cannot read " + path;
    }
    if (auto error = load(content.str())) {
        return path + ": " + *error;
    }
    return std::nullopt;
}

void datamodel_t::clear() {
    object_access::destroyAll(this);
    root_ = object_access::makeRoot(this);
}

// ----------------------------------------------------------------- lookups

object_t* object_getObject(object_t* parent, std::string_view path, std::uint32_t /*attributes*/,
                           bool* match) {
    if (match) {
        *match = false;
    }
    if (!parent) {
        orv_setError(orv_error_invalid_argument);
        return nullptr;
    }
    if (path.empty()) {
        if (match) {
            *match = true;
        }
        return parent;
    }
    object_t* current = parent;
    bool first = true;
    while (true) {
        auto dot = path.find('.');
        std::string_view element = path.substr(0, dot);
        object_t* next = current->child(element);
        if (!next) {
            next = current->instance(element);
        }
        if (!next) {
            if (first) {
                orv_setError(orv_error_not_found);
                return nullptr;
            }
            return current;
        }
        current = next;
        first = false;
        if (dot == std::string_view::npos) {
            if (match) {
                *match = true;
            }
            return current;
        }
        path.remove_prefix(dot + 1);
    }
}

object_t* object_parent(const object_t* object) {
    return object ? object->parent() : nullptr;
}

std::optional<std::string> object_name(const object_t* object, std::uint32_t /*attributes*/) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return std::nullopt;
    }
    if (!object->parent()) {
        orv_setError(orv_error_not_found);
        return std::nullopt;
    }
    return object->name();
}

std::string object_path(const object_t* object, std::uint32_t /*attributes*/) {
    std::vector<const std::string*> names;
    for (const object_t* o = object; o && o->parent(); o = o->parent()) {
        names.push_back(&o->name());
    }
    std::string path;
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        if (!path.empty()) {
            path += '.';
        }
        path += **it;
    }
    return path;
}

object_t* object_firstInstance(const object_t* templateObject) {
    return object_access::firstInstance(templateObject);
}

object_t* object_nextInstance(const object_t* instance) {
    return object_access::nextInstance(instance);
}

std::size_t object_instanceCount(const object_t* templateObject) {
    return templateObject ? templateObject->instances().size() : 0;
}

// ---------------------------------------------------------------- instances

object_t* object_createInstance(object_t* templateObject, std::int64_t index,
                                std::optional<std::string_view> key) {
    try {
        return object_access::createInstance(templateObject, index, key);
    } catch (const std::bad_alloc&) {
        orv_setError(orv_error_no_memory);
        return nullptr;
    }
}

bool object_delete(object_t* object) {
    return object_access::markDeleted(object);
}

bool object_commit(object_t* object) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    object_access::commit(object);
    return true;
}

bool object_rollback(object_t* object) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    object_access::rollback(object);
    return true;
}

// --------------------------------------------------------------- parameters

const variant_t* object_parameterValue(const object_t* object, std::string_view name) {
    if (!object) {
        return nullptr;
    }
    const object_parameter_t* parameter = object_access::findParameter(object, name);
    if (!parameter) {
        return nullptr;
    }
    return parameter->pending ? parameter->pending.get() : &parameter->value;
}

const variant_t* object_parameterCommittedValue(const object_t* object, std::string_view name) {
    if (!object) {
        return nullptr;
    }
    const object_parameter_t* parameter = object_access::findParameter(object, name);
    return parameter ? &parameter->value : nullptr;
}

namespace {

object_parameter_t* writableParameter(object_t* object, std::string_view name) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return nullptr;
    }
    object_parameter_t* parameter = object->parameter(name);
    if (!parameter) {
        orv_setError(orv_error_not_found);
    }
    return parameter;
}

bool setPending(object_parameter_t* parameter, variant_t value) {
    if (parameter->pending) {
        *parameter->pending = std::move(value);
    } else {
        parameter->pending = std::make_unique<variant_t>(std::move(value));
    }
    return true;
}

}  // namespace

bool object_parameterSetValue(object_t* object, std::string_view name, const variant_t* value) {
    object_parameter_t* parameter = writableParameter(object, name);
    if (!parameter) {
        return false;
    }
    if (!value) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    auto converted = definition_convertValue(parameter->definition->type, *value);
    if (!converted) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    return setPending(parameter, std::move(*converted));
}

bool object_parameterSetCharValue(object_t* object, std::string_view name, std::string_view value) {
    variant_t variant(value);
    return object_parameterSetValue(object, name, &variant);
}

bool object_parameterSetStringValue(object_t* object, std::string_view name,
                                    const std::string* value) {
    if (!value) {
        if (writableParameter(object, name)) {
            orv_setError(orv_error_invalid_value);
        }
        return false;
    }
    return object_parameterSetCharValue(object, name, *value);
}

bool object_parameterSetBoolValue(object_t* object, std::string_view name, bool value) {
    variant_t variant(value);
    return object_parameterSetValue(object, name, &variant);
}

bool object_parameterSetUInt32Value(object_t* object, std::string_view name, std::uint32_t value) {
    variant_t variant(value);
    return object_parameterSetValue(object, name, &variant);
}

bool object_parameterSetDateTimeValue(object_t* object, std::string_view name,
                                      const struct tm* value) {
    object_parameter_t* parameter = writableParameter(object, name);
    if (!parameter) {
        return false;
    }
    if (!value || parameter->definition->type != variant_type_date_time) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    struct tm copy = *value;
    errno = 0;
    std::time_t seconds = std::mktime(&copy);
    if (seconds == static_cast<std::time_t>(-1) && errno != 0) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    return setPending(parameter, variant_t::dateTime(static_cast<std::int64_t>(seconds)));
}

// ---------------------------------------------------------------- user data

void object_setUserDataRaw(object_t* object, void* data, void (*release)(void*)) {
    if (!object) {
        if (data && release) {
            release(data);
        }
        return;
    }
    object_access::setUserData(object, data, release);
}

void* object_getUserDataRaw(const object_t* object) {
    return object ? object_access::userData(object) : nullptr;
}

void object_clearUserData(object_t* object) {
    if (object) {
        object_access::setUserData(object, nullptr, nullptr);
    }
}

bool object_setDestroyHandler(object_t* object, object_destroy_handler_t handler) {
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    object_access::setDestroyHandler(object, handler);
    return true;
}
