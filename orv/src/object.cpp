// The data model: objects, the model that owns them, and lookups by path.
#include "orv/object.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include "object_internal.h"
#include "orv/error.h"

// ---------------------------------------------------------------- object_t

object_t::object_t(datamodel_t* model, object_t* parent, const object_definition_t* definition,
                   kind_t kind, std::string name)
    : datamodel_(model),
      parent_(parent),
      definition_(definition),
      name_(std::move(name)),
      kind_(kind) {
    static_assert(sizeof(object_t) % alignof(variant_t) == 0, "the values follow the object");
    // make() allocated room for the values; they start as the defaults.
    if (kind == kind_t::template_object || definition == nullptr) {
        return;
    }
    try {
        for (const auto& parameter : definition->parameters) {
            new (values() + parameterCount_) variant_t(parameter.defaultValue);
            ++parameterCount_;
        }
    } catch (...) {
        std::destroy_n(values(), parameterCount_);
        throw;
    }
}

object_t::~object_t() {
    children_.clear();
    instances_.reset();
    std::destroy_n(values(), parameterCount_);
}

object_instances_t::~object_instances_t() {
    // Owned through the links: each instance goes with what is below it.
    while (object_t* instance = list.back()) {
        list.erase(*instance);
        delete instance;
    }
}

object_t* object_t::child(std::string_view name) const {
    for (const auto& child : children_) {
        if (child->name_ == name) {
            return child.get();
        }
    }
    return nullptr;
}

object_t* object_t::instance(std::string_view key) const {
    return instances_ ? object_access::byKey(this, key) : nullptr;
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
    return object_access::instanceCount(templateObject);
}

std::size_t object_access::instanceCount(const object_t* templateObject) {
    return templateObject && templateObject->instances_ ? templateObject->instances_->list.size()
                                                        : 0;
}

object_t* object_access::firstInstance(const object_t* templateObject) {
    if (!templateObject || !templateObject->instances_) {
        return nullptr;
    }
    return templateObject->instances_->list.front();
}

object_t* object_access::nextInstance(const object_t* instance) {
    if (!instance || instance->kind_ != object_t::kind_t::instance) {
        return nullptr;
    }
    return instance_list_t::next(*instance);
}

std::size_t object_access::parameterIndex(const object_t* object, std::string_view name) {
    std::size_t at = 0;
    if (object->parameterCount_ != 0) {
        const auto& parameters = object->definition_->parameters;
        while (at < object->parameterCount_ && parameters[at].name != name) {
            ++at;
        }
    }
    return at;
}
