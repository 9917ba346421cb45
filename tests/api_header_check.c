/* Compiled as C: the exported header must stay usable from a C compositor. */

#include "pelyx/pelyx.h"

_Static_assert(sizeof(PelyxRect) == 4 * sizeof(int32_t), "PelyxRect is four packed int32");

int32_t pelyxHeaderCheckRectWidth(const PelyxRect* rect) {
    return rect->right - rect->left;
}
