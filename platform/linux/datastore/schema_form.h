/// The forms that the schema gives for values: whether a text has one, and what one is in words.
#ifndef LINUX_DATASTORE_SCHEMA_FORM_H
#define LINUX_DATASTORE_SCHEMA_FORM_H

#include <string>
#include <string_view>

#include "linux/datastore/schema.h"

/// Whether every character of the text is of the set. Text that is not UTF-8 has no set.
bool schema_has_charset(std::string_view text, schema_charset charset);

/// Whether a text begins and ends with the same delimiter, a punctuation character of ASCII.
bool schema_is_delimited(std::string_view text);

/// The form in words: "a number from 5 to 120 (seconds, login grace time)".
std::string schema_form_in_words(const schema_form& form);

#endif
