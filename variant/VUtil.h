// VUtil: the helpers every service uses to read its arguments out of a
// variant and to write its results into one.
//
// Promises:
// - Every failure throws CabInvalidParameterException (code 1) by value with a
//   fixed text (cut at 255 characters); nothing is logged here.
// - Variants and strings made locally are released on every path, also when an
//   exception leaves; a writer whose store fails leaves its target as it was.
// - Getters return copies that the caller owns: GetElement(tagVARIANT&) gives a
//   variant to VariantClear, GetByteArray a buffer to free(), the element form
//   of GetBinaryElement a buffer to delete[].
// - Arrays are one-dimensional with lower bound 0; the length functions refuse
//   any other lower bound. "long" values travel as 32-bit VT_I4 elements.
// - Strings are narrow and read up to their first NUL; a null string reads "".
#pragma once

#include <map>
#include <vector>

#include "value/Variant.h"
#include "common/CStdStr.h"

namespace VUtil {

typedef std::map<CStdStr, CStdStr> StringMap;

// ---- Arrays and type checks ----------------------------------------------

// Makes `v` a new zero-based array of `count` elements of `elementType`. What
// `v` held before is not released: pass a fresh or cleared variant.
void CreateArray(tagVARIANT& v, VARTYPE elementType, unsigned long count);
// Resizes the array held by `v` to `count` elements.
void RedimArray(tagVARIANT& v, unsigned long count);
// Element count of an array variant; throws for a non-array.
int GetArrayLength(const tagVARIANT& v);
// As GetArrayLength, but VT_EMPTY has length 0.
int GetArrayLengthEmpty(const tagVARIANT& v);
// Throws unless v.vt is exactly `type`. `context` (may be null) prefixes the message.
void CheckType(const tagVARIANT& v, VARTYPE type, const char* context);
// Throws unless v is an array of `elementType` with exactly `length` elements
// (or at least `length` when `orMore`). Returns the element count.
int CheckArrayType(const tagVARIANT& v, VARTYPE elementType, int length, bool orMore, const char* context);
int CheckArrayType(const tagVARIANT& v, VARTYPE elementType, int length, const char* context);

// ---- Byte arrays -----------------------------------------------------------

// Clears *v and makes it a VT_ARRAY|VT_UI1 holding a copy of `len` bytes
// (zeros when `data` is null).
void PutBinaryIntoVariant(tagVARIANT* v, const void* data, int len);
// Element `index` of an array of variants, which must be a byte array, copied
// into a buffer from malloc (caller frees with free()). Returns the byte count.
int GetByteArray(const tagVARIANT& v, int index, unsigned char** out);
// Copies at most `maxLen` bytes from `offset` of a VT_I1/VT_UI1 array into
// `buffer`; returns the count copied (0 when offset is at or past the end, or
// when offset or maxLen is negative).
int GetBinaryElement(const tagVARIANT& v, void* buffer, int offset, int maxLen);
// Element `index` of an array of variants, which must be a byte array, copied
// into a buffer from new[] (caller frees with delete[]); `len` gets its size.
void GetBinaryElement(const tagVARIANT& v, int index, unsigned char*& out, int& len);

// ---- Strict readers: exactly one typed array, no conversion ---------------

// `out` is overwritten (not cleared first) with a copy that the caller clears.
void GetElement(const tagVARIANT& v, int index, tagVARIANT& out);
void GetElement(const tagVARIANT& v, int index, long& out);                // VT_I4
void GetElement(const tagVARIANT& v, int index, int& out);                 // VT_I4
void GetElement(const tagVARIANT& v, int index, short& out);               // VT_I2
void GetElement(const tagVARIANT& v, int index, unsigned short& out);      // VT_UI2
void GetElement(const tagVARIANT& v, int index, unsigned long& out);       // VT_UI4
void GetElement(const tagVARIANT& v, int index, long long& out);           // VT_I8
void GetElement(const tagVARIANT& v, int index, unsigned long long& out);  // VT_UI8
void GetElement(const tagVARIANT& v, int index, float& out);               // VT_R4
void GetElement(const tagVARIANT& v, int index, double& out);              // VT_R8
void GetElement(const tagVARIANT& v, int index, bool& out);                // VT_BOOL (its error says "short")
void GetElement(const tagVARIANT& v, int index, CStdStr& out);             // VT_BSTR

// ---- Converting readers: the typed array, or an array of variants whose
// element has the right type. The ...Empty forms also take a VT_EMPTY element.
// A VT_ARRAY|VT_BOOL array is refused by both bool readers ("not a short
// array"): booleans travel in arrays of variants.

int GetIntElement(const tagVARIANT& v, int index);
long GetLongElement(const tagVARIANT& v, int index);
long GetLongElementEmpty(const tagVARIANT& v, int index);  // empty: 0
short GetShortElement(const tagVARIANT& v, int index);
unsigned short GetUnsignedShortElement(const tagVARIANT& v, int index);
double GetDoubleElement(const tagVARIANT& v, int index);
float GetFloatElement(const tagVARIANT& v, int index);          // R4, or R8 narrowed
CStdStr GetStringElement(const tagVARIANT& v, int index);       // empty: ""
CStdStr GetStringElementEmpty(const tagVARIANT& v, int index);  // empty: ""
bool GetBoolElement(const tagVARIANT& v, int index);
bool GetBoolElementEmpty(const tagVARIANT& v, int index);  // also I2/UI2/I4/UI4 non-zero; NULL/empty: false
long GetDateElement(const tagVARIANT& v, int index);       // seconds since 1970

// ---- Writers: into the typed array, or wrapped in a variant when `v` is an
// array of variants.

void PutElement(tagVARIANT& v, int index, long value);                // VT_I4 (32 bits kept)
void PutElement(tagVARIANT& v, int index, int value);                 // VT_I4
void PutElement(tagVARIANT& v, int index, short value);               // VT_I2
void PutElement(tagVARIANT& v, int index, unsigned short value);      // VT_UI2
void PutElement(tagVARIANT& v, int index, unsigned char value);       // VT_UI1
void PutElement(tagVARIANT& v, int index, long long value);           // VT_I8
void PutElement(tagVARIANT& v, int index, unsigned long long value);  // VT_UI8
void PutElement(tagVARIANT& v, int index, float value);               // VT_R4
void PutElement(tagVARIANT& v, int index, double value);              // VT_R8
void PutElement(tagVARIANT& v, int index, const CStdStr& value);      // VT_BSTR
void PutElement(tagVARIANT& v, int index, const char* value);         // VT_BSTR (null: "")
// Raw form: `value` is handed to the runtime as the element, with no type
// check (a string pointer for a VT_BSTR array, else a pointer to the value).
void PutElement(tagVARIANT& v, int index, const void* value);
// Stores a copy of `value` (for an array of variants).
void PutElement(tagVARIANT& v, int index, const tagVARIANT& value);
// Typed VT_BOOL array: stored as 1 for true; array of variants: VT_BOOL -1/0.
void PutBoolElement(tagVARIANT& v, int index, bool value);
// Seconds since 1970, stored as VT_DATE.
void PutDateElement(tagVARIANT& v, int index, long seconds);

// ---- Pairs (2-element arrays of variants: name, value) and maps -----------

void PutPair(tagVARIANT& v, int index, const CStdStr& name, const CStdStr& value);
void PutPair(tagVARIANT& v, int index, const CStdStr& name, long value);
void PutPair(tagVARIANT& v, int index, const CStdStr& name, const tagVARIANT& value);
// Name and value of pair `index` as strings.
void GetPair(const tagVARIANT& v, int index, CStdStr& name, CStdStr& value);
// First pair whose name equals `name` (case-sensitive); `value` is untouched
// when none matches. VT_EMPTY elements are skipped.
bool FindPair(const tagVARIANT& v, const CStdStr& name, CStdStr& value);
// As FindPair, comparing names case-insensitively.
bool FindPairNoCase(const tagVARIANT& v, const CStdStr& name, CStdStr& value);
bool FindPairNoCase(const tagVARIANT& v, const CStdStr& name, tagVARIANT& value);  // overwritten: caller clears
bool FindPairNoCase(const tagVARIANT& v, const CStdStr& name, int& value);         // VT_I4, or atoi of VT_BSTR
// Map of a pair list (later pairs win); keys lower-cased when `lowerKeys`.
StringMap toStringMap(const tagVARIANT& v, bool lowerKeys = false);
StringMap toStringAMap(const tagVARIANT& v, bool lowerKeys = false);
// String element `index` split at runs of ',' and ' ', without empty tokens.
std::vector<CStdStr> GetCSVElement(const tagVARIANT& v, int index);

// ---- Outputs of called services --------------------------------------------

// Element 0 of an array of variants, which must be a string.
void GetSingleOutParamString(const tagVARIANT& out, CStdStr& text);
// Element 0 of an array, or the value of a VT_I4.
long GetSingleRetcode(const tagVARIANT& out);
// Throws when the status read as GetSingleRetcode does is negative.
void CheckSingleRetcode(const tagVARIANT& out, const char* context);

// ---- Dates -----------------------------------------------------------------

// Variant date (days, day 25569 = 1 Jan 1970) to seconds since 1970, rounded
// to the nearest second. A date that is not a finite number of days within
// about +-1e9 days gives -1.
long DateToTime(double date);
// Seconds since 1970 to a variant date.
double TimeToDate(long seconds);

}  // namespace VUtil
