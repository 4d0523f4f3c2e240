#include "platform/datastore.h"

// Names become part of paths, file names and shell commands. The test does not use isalnum, which depends on the locale
// and is undefined for negative values of a signed char.
int datastore_reserved_character(int character) {
    const bool letter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
    const bool digit = character >= '0' && character <= '9';
    return letter || digit || character == '_' || character == '-' || character == '.' ? 0 : 1;
}
