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

void object_access::rollback(object_t* object) {
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
