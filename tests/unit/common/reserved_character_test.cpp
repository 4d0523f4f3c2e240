#include <gtest/gtest.h>

#include <cstring>

#include "platform/datastore.h"

namespace {

TEST(datastore_reserved_character, allows_letters_digits_and_three_marks_only) {
    const char open[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
    for (int character = -128; character < 256; character++) {
        const bool is_open = character > 0 && character < 128 && strchr(open, character) != nullptr;
        EXPECT_EQ(datastore_reserved_character(character), is_open ? 0 : 1) << character;
    }
}

TEST(datastore_reserved_character, refuses_characters_that_a_shell_interprets) {
    for (const char* character = " /'\"`;$(){}|&<>*?~!#\\\n\t"; *character != '\0'; character++) {
        EXPECT_EQ(datastore_reserved_character(*character), 1) << *character;
    }
}

}  // namespace
