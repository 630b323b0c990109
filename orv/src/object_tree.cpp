// The tree of the data model: objects built from definitions, instances
// created under their templates, and the destruction of both.
#include <cerrno>
#include <limits>
#include <string>
#include <utility>

#include "object_internal.h"
#include "orv/error.h"

object_t* object_access::byKey(const object_t* templateObject, std::string_view key) {
    const std::uint64_t hash = keyHash(key);
    object_t* found = nullptr;
    // The stored hash spares reading the instances of other keys.
    templateObject->instances_->byKey.scan(hash, [&](std::size_t, const object_key_slot_t& slot) {
        if (slot.hash == hash && slot.instance->name_ == key) {
            found = slot.instance;
        }
        return found != nullptr;
    });
    return found;
}

std::unique_ptr<object_t> object_access::make(datamodel_t* model, object_t* parent,
                                              const object_definition_t* definition,
                                              object_t::kind_t kind, std::string name) {
    const std::size_t count = kind == object_t::kind_t::template_object || definition == nullptr
                                  ? 0
                                  : definition->parameters.size();
    void* block = ::operator new(sizeof(object_t) + count * sizeof(variant_t));
    std::unique_ptr<object_t> object;
    try {
        object.reset(new (block) object_t(model, parent, definition, kind, std::move(name)));
    } catch (...) {
        ::operator delete(block);
        throw;
    }
    if (kind == object_t::kind_t::template_object) {
        object->instances_ = std::make_unique<object_instances_t>();
    }
    return object;
}

std::unique_ptr<object_t> object_access::build(datamodel_t* model, object_t* parent,
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

void object_access::fillFromDefinition(object_t* object, const object_definition_t* definition) {
    object->children_.reserve(definition->objects.size());
    for (const auto& child : definition->objects) {
        object->children_.push_back(build(object->datamodel_, object, child.get()));
    }
}

std::unique_ptr<object_t> object_access::makeRoot(datamodel_t* model) {
    auto root = make(model, nullptr, nullptr, object_t::kind_t::plain, std::string());
    root->committed_ = true;
    return root;
}

std::optional<std::string> object_access::load(datamodel_t* model, std::string_view json) {
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

bool object_access::indexTaken(const object_t* templateObject, std::uint32_t index) {
    for (const object_t* instance = templateObject->instances_->list.front(); instance != nullptr;
         instance = instance_list_t::next(*instance)) {
        if (instance->index_ == index) {
            return true;
        }
    }
    return false;
}

std::uint32_t object_access::chooseIndex(const object_t* templateObject, std::int64_t index,
                                         bool named) {
    if (index == 0 || index < -1 ||
        index > static_cast<std::int64_t>(std::numeric_limits<std::uint32_t>::max())) {
        orv_setError(orv_error_invalid_argument);
        return 0;
    }
    if (index != -1) {
        const auto chosen = static_cast<std::uint32_t>(index);
        if (indexTaken(templateObject, chosen)) {
            orv_setError(orv_error_duplicate);
            return 0;
        }
        return chosen;
    }
    if (templateObject->instances_->nextIndex == 0) {  // wrapped around: no index left
        orv_setError(orv_error_invalid_argument);
        return 0;
    }
    std::uint32_t chosen = templateObject->instances_->nextIndex;
    if (!named) {
        // The name comes from the index: skip indices whose text is a key already.
        while (byKey(templateObject, std::to_string(chosen)) != nullptr &&
               chosen < std::numeric_limits<std::uint32_t>::max()) {
            ++chosen;
        }
    }
    return chosen;
}

object_t* object_access::attachInstance(object_t* templateObject, std::uint32_t index,
                                        std::string name) {
    auto instance = make(templateObject->datamodel_, templateObject, templateObject->definition_,
                         object_t::kind_t::instance, std::move(name));
    instance->index_ = index;
    fillFromDefinition(instance.get(), templateObject->definition_);
    object_instances_t& instances = *templateObject->instances_;
    instances.byKey.insert({keyHash(instance->name_), instance.get()});
    object_t* raw = instance.release();
    instances.list.pushBack(*raw);
    if (index >= instances.nextIndex) {
        // 0 after the last index: no automatic index is left.
        instances.nextIndex = index + 1;
    }
    return raw;
}

object_t* object_access::createInstance(object_t* templateObject, std::int64_t index,
                                        std::optional<std::string_view> key) {
    if (!templateObject || templateObject->kind_ != object_t::kind_t::template_object ||
        !templateObject->definition_) {
        orv_setError(orv_error_invalid_argument);
        return nullptr;
    }
    const std::uint32_t chosen = chooseIndex(templateObject, index, key.has_value());
    if (chosen == 0) {
        return nullptr;
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
    return attachInstance(templateObject, chosen, std::move(name));
}

void object_access::destroyTree(object_t* object) {
    for (auto& child : object->children_) {
        destroyTree(child.get());
    }
    if (object->instances_) {
        for (object_t* instance = object->instances_->list.front(); instance != nullptr;
             instance = instance_list_t::next(*instance)) {
            destroyTree(instance);
        }
    }
    if (auto handler = object->destroyHandler_) {
        object->destroyHandler_ = nullptr;
        handler(object);
    }
    object->userData_.reset();
}

void object_access::removeInstance(object_t* instance, bool notify) {
    object_observer_t* observer = instance->datamodel_ ? instance->datamodel_->observer_ : nullptr;
    if (notify && observer && instance->committed_) {
        observer->instanceRemoved(*instance);
    }
    destroyTree(instance);
    object_instances_t& instances = *instance->parent_->instances_;
    const std::size_t filed = instances.byKey.scan(
        keyHash(instance->name_),
        [&](std::size_t, const object_key_slot_t& slot) { return slot.instance == instance; });
    if (filed != instances.byKey.npos) {
        instances.byKey.eraseAt(filed);
    }
    instances.list.erase(*instance);
    delete instance;
}

void object_access::destroyAll(datamodel_t* model) {
    if (model->root_) {
        destroyTree(model->root_.get());
        model->root_.reset();
    }
    model->definitions_.clear();
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
