// Pending changes of the data model: commits publish them, rollbacks drop
// them, and deleted instances go with the commit that follows.
#include <string>
#include <utility>
#include <vector>

#include "object_internal.h"
#include "orv/error.h"

bool object_access::published(const object_t* object) {
    for (; object; object = object->parent_) {
        if (object->kind_ == object_t::kind_t::instance && !object->committed_) {
            return false;
        }
    }
    return true;
}

void object_access::applyPending(object_t* object, std::vector<std::string>* changed) {
    if (!object->pending_) {
        return;
    }
    variant_t* values = object->values();
    for (std::uint32_t i = 0; i < object->parameterCount_; ++i) {
        std::optional<variant_t>& pending = object->pending_[i];
        if (!pending) {
            continue;
        }
        if (changed && !(values[i] == *pending)) {
            changed->push_back(object->definition_->parameters[i].name);
        }
        values[i] = std::move(*pending);
    }
    object->pending_.reset();
}

void object_access::applyPlainSubtree(object_t* object) {
    for (auto& child : object->children_) {
        applyPending(child.get(), nullptr);
        applyPlainSubtree(child.get());
    }
}

void object_access::commit(object_t* object) {
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
    } else if (parentPublished && observer) {
        std::vector<std::string> changed;
        applyPending(object, &changed);
        if (!changed.empty()) {
            observer->parametersChanged(*object, changed);
        }
    } else {
        // Nobody is told: the names of the changed values are not needed.
        applyPending(object, nullptr);
    }
    for (std::size_t i = 0; i < object->children_.size(); ++i) {
        commit(object->children_[i].get());
    }
    eachInstance(object, [](object_t* instance) { commit(instance); });
}

void object_access::rollback(object_t* object) {
    if (object->kind_ == object_t::kind_t::instance && !object->committed_) {
        removeInstance(object, false);
        return;
    }
    object->deleted_ = false;
    object->pending_.reset();
    for (std::size_t i = 0; i < object->children_.size(); ++i) {
        rollback(object->children_[i].get());
    }
    eachInstance(object, [](object_t* instance) { rollback(instance); });
}

bool object_access::markDeleted(object_t* object) {
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
