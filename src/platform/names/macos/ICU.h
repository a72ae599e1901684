#pragma once

#include <cstdint>

// Functions of ICU, which is part of macOS as libicucore. The SDK has no header for these functions, so this file
// declares them as ICU's documentation of uidna.h and ustring.h does. They have not changed since ICU 4.6.
extern "C" {
struct UIDNA;
struct UIDNAInfo {
  int16_t size;
  int8_t isTransitionalDifferent;
  int8_t reservedB3;
  uint32_t errors;
  int32_t reservedI2;
  int32_t reservedI3;
};
UIDNA* uidna_openUTS46(uint32_t options, int* errorCode);
int32_t uidna_labelToASCII_UTF8(const UIDNA* idna, const char* label, int32_t length, char* destination,
                                int32_t capacity, UIDNAInfo* info, int* errorCode);
int32_t uidna_labelToUnicodeUTF8(const UIDNA* idna, const char* label, int32_t length, char* destination,
                                 int32_t capacity, UIDNAInfo* info, int* errorCode);
int32_t uidna_nameToUnicodeUTF8(const UIDNA* idna, const char* name, int32_t length, char* destination,
                                int32_t capacity, UIDNAInfo* info, int* errorCode);
char16_t* u_strFromUTF8(char16_t* destination, int32_t capacity, int32_t* destinationLength, const char* source,
                        int32_t length, int* errorCode);
}
