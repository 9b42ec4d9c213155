/* The layout of an object, shared by the sources that make and print objects. */
#ifndef TIRVAL_COMMON_OBJECT_H
#define TIRVAL_COMMON_OBJECT_H

#include "tirval_common.h"

#include <memory>

/* What every error has stands in the object itself, so that the instance data belongs to the type
 * alone. */
struct tirval_object_s {
    const tirval_object_type_t *type;
    void *data;
    const tirval_module_descriptor_t *source; /* errors only */
    tirval_object_t *cause;                   /* errors only; owned */
};

namespace tirval::common {

struct object_release {
    void operator()(tirval_object_t *object) const noexcept { tirval_object_free(object); }
};
using owned_object = std::unique_ptr<tirval_object_t, object_release>;

} // namespace tirval::common

#endif
