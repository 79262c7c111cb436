// Compiled as C++17 (-pedantic -Werror), never linked: the header must be
// usable from C++ with exactly the declared types and C linkage.
#include "kivcam/kivcam.h"
#include "kivcam/kivcam_features.h"
#include "kivcam/kivcam_reader.h"
#include "capi_exports.h"

#include <type_traits>

#define KIVCAM_EXACT(result, name, args) \
    static_assert(std::is_same<decltype(&name), result(*) args>::value, #name " has the declared type");
KIVCAM_EXPORTS(KIVCAM_EXACT)
KIVCAMF_EXPORTS(KIVCAM_EXACT)

namespace {
using AnyFn = void (*)();
#define KIVCAM_ENTRY(result, name, args) reinterpret_cast<AnyFn>(&name),
AnyFn const table[] = {KIVCAM_EXPORTS(KIVCAM_ENTRY) KIVCAMF_EXPORTS(KIVCAM_ENTRY)};
static_assert(sizeof(table) / sizeof(table[0]) == KIVCAM_EXPORT_COUNT + KIVCAMF_EXPORT_COUNT,
              "every export is in the table");
static_assert(std::is_standard_layout<KIVCAMF_INFO>::value && std::is_trivial<KIVCAMF_INFO>::value,
              "the feature record is plain C data");
}  // namespace

// Handles of different kinds must not convert into each other in C++.
static_assert(!std::is_convertible<HCTBL, HCAMERA>::value, "HCTBL is not an HCAMERA");
static_assert(!std::is_convertible<HCAMERAPORT, HCAMERA>::value, "HCAMERAPORT is not an HCAMERA");
static_assert(!std::is_convertible<HVSYNC, HCAMERA>::value, "HVSYNC is not an HCAMERA");
static_assert(std::is_standard_layout<ImageBuffer>::value && std::is_trivial<ImageBuffer>::value,
              "records are plain C data");

const void *kivcam_capi_cpp_table() { return table; }
