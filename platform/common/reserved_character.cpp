#include "platform/datastore.h"

// Names go into paths, file names and shell commands. The test is spelled out rather than left to isalnum, whose answer
// depends on the locale and which is undefined for characters of a signed char below zero.
int datastore_reserved_character(int character) {
    const bool letter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
    const bool digit = character >= '0' && character <= '9';
    return letter || digit || character == '_' || character == '-' || character == '.' ? 0 : 1;
}
