/*
 * Objects: a type, the type's own instance data, and for errors a source and a cause.  Chains of
 * causes are walked in loops, never by recursion, so that their length is bounded by memory alone.
 */
#include "object.h"

#include <new>

namespace {

using tirval::common::owned_object;

/* A copy of the object without its causes; null when memory ran out. */
owned_object copy_one(const tirval_object_t &object)
{
    owned_object copy(tirval_object_construct(object.type));
    if (copy == nullptr) {
        return nullptr;
    }
    copy->source = object.source;
    if (object.data != nullptr && object.type->copy_func != nullptr) {
        object.type->copy_func(object.data, &copy->data);
        if (copy->data == nullptr) {
            return nullptr;
        }
    }
    return copy;
}

void free_one(tirval_object_t *object)
{
    if (object->data != nullptr && object->type->free_func != nullptr) {
        object->type->free_func(object->data);
    }
    delete object;
}

} // namespace

extern "C" {

const tirval_object_type_t tirval_i_object_type_base = {nullptr, nullptr, nullptr, nullptr};

tirval_object_t *tirval_object_construct(const tirval_object_type_t *type)
{
    if (type == nullptr) {
        return nullptr;
    }
    return new (std::nothrow) tirval_object_t{type, nullptr, nullptr, nullptr};
}

void tirval_object_free(tirval_object_t *object)
{
    while (object != nullptr) {
        tirval_object_t *cause = object->cause;
        free_one(object);
        object = cause;
    }
}

tirval_object_t *tirval_object_copy(const tirval_object_t *object)
{
    tirval_object_t *first = nullptr;
    tirval_object_t **end = &first;
    for (; object != nullptr; object = object->cause) {
        owned_object copy = copy_one(*object);
        if (copy == nullptr) {
            tirval_object_free(first);
            return nullptr;
        }
        *end = copy.release();
        end = &(*end)->cause;
    }
    return first;
}

tirval_object_t *tirval_object_upcast(tirval_object_t *object, const tirval_object_type_t *type)
{
    if (object == nullptr || type == nullptr) {
        return nullptr;
    }
    for (const tirval_object_type_t *own = object->type; own != nullptr; own = own->parent) {
        if (own == type) {
            return object;
        }
    }
    return nullptr;
}

const tirval_object_type_t *tirval_object_get_type(const tirval_object_t *object)
{
    return object == nullptr ? nullptr : object->type;
}

void *tirval_object_get_instance_data(const tirval_object_t *object)
{
    return object == nullptr ? nullptr : object->data;
}

void tirval_object_set_instance_data(tirval_object_t *object, void *data)
{
    if (object != nullptr) {
        object->data = data;
    }
}
}
