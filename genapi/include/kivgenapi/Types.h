// Basic types of the node-map engine: strings, lists and the enumerations
// whose numeric values applications store and compare.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The engine's API is visible from the shared library it is built into;
// everything else of it is not.
#if defined(__GNUC__) || defined(__clang__)
#define KIVGENAPI_API __attribute__((visibility("default")))
#else
#define KIVGENAPI_API
#endif

namespace KivGenApi {

// A std::string that also builds implicitly from a NULL-safe C string, so
// code written for GenApi's string class keeps compiling.
class gcstring : public std::string {
 public:
  gcstring() = default;
  gcstring(const char* s) : std::string(s ? s : "") {}
  gcstring(const char* s, size_t n) : std::string(s ? s : "", s ? n : 0) {}
  gcstring(const std::string& s) : std::string(s) {}
  gcstring(std::string&& s) : std::string(std::move(s)) {}
};

using gcstring_vector = std::vector<gcstring>;
using StringList_t = gcstring_vector;

class INode;
class IValue;
using NodeList_t = std::vector<INode*>;
using FeatureList_t = std::vector<IValue*>;
using int64_autovector_t = std::vector<int64_t>;
using double_autovector_t = std::vector<double>;

enum EAccessMode { NI = 0, NA = 1, WO = 2, RO = 3, RW = 4, _UndefinedAccesMode = 5, _CycleDetectAccesMode = 6 };

enum EInterfaceType {
  intfIValue = 0, intfIBase = 1, intfIInteger = 2, intfIBoolean = 3, intfICommand = 4, intfIFloat = 5,
  intfIString = 6, intfIRegister = 7, intfICategory = 8, intfIEnumeration = 9, intfIEnumEntry = 10, intfIPort = 11
};

enum EVisibility { Beginner = 0, Expert = 1, Guru = 2, Invisible = 3, _UndefinedVisibility = 99 };
enum ECachingMode { NoCache = 0, WriteThrough = 1, WriteAround = 2, _UndefinedCachingMode = 3 };
enum EIncMode { noIncrement = 0, fixedIncrement = 1, listIncrement = 2 };
enum ERepresentation {
  Linear = 0, Logarithmic = 1, Boolean = 2, PureNumber = 3, HexNumber = 4, IPV4Address = 5, MACAddress = 6,
  _UndefinedRepresentation = 7
};
enum EEndianess { BigEndian = 0, LittleEndian = 1, _UndefinedEndian = 2 };
enum ESign { Signed = 0, Unsigned = 1, _UndefinedSign = 2 };
enum ENameSpace { Custom = 0, Standard = 1, _UndefinedNameSpace = 2 };
enum EStandardNameSpace { None = 0, GEV = 1, IIDC = 2, CL = 3, USB = 4, _UndefinedStandardNameSpace = 5 };
enum EYesNo { No = 0, Yes = 1, _UndefinedYesNo = 2 };
enum EDisplayNotation { fnAutomatic = 0, fnFixed = 1, fnScientific = 2, _UndefinedEDisplayNotation = 3 };
enum ESlope { Increasing = 0, Decreasing = 1, Varying = 2, Automatic = 3, _UndefinedESlope = 4 };
enum ELinkType {
  ctParentNodes = 0, ctReadingChildren = 1, ctWritingChildren = 2, ctInvalidatingChildren = 3,
  ctDependingNodes = 4, ctTerminalNodes = 5, ctValueChangingChildren = 6
};
enum EGenApiSchemaVersion { v1_0 = 1, v1_1 = 2, _Undefined = -1 };

// Access-mode and property helpers.
inline EAccessMode Combine(EAccessMode a, EAccessMode b) {
  if (a == NI || b == NI) return NI;
  if (a == NA || b == NA) return NA;
  if ((a == RO && b == WO) || (a == WO && b == RO)) return NA;
  if (a == WO || b == WO) return WO;
  if (a == RO || b == RO) return RO;
  return RW;
}
inline EVisibility Combine(EVisibility a, EVisibility b) { return a > b ? a : b; }
inline ECachingMode Combine(ECachingMode a, ECachingMode b) {
  if (a == NoCache || b == NoCache) return NoCache;
  if (a == WriteAround || b == WriteAround) return WriteAround;
  return WriteThrough;
}
inline bool IsVisible(EVisibility v, EVisibility max) { return v <= max; }
inline bool IsCacheable(ECachingMode m) { return m != NoCache; }

inline bool IsReadable(EAccessMode m) { return m == RO || m == RW; }
inline bool IsWritable(EAccessMode m) { return m == WO || m == RW; }
inline bool IsImplemented(EAccessMode m) { return m != NI; }
inline bool IsAvailable(EAccessMode m) { return m != NI && m != NA; }

KIVGENAPI_API const char* AccessModeName(EAccessMode m);

}  // namespace KivGenApi
