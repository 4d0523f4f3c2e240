/// Short paths: an operator may give a path of the configuration by its end.
#ifndef LINUX_DATASTORE_SHORT_PATH_H
#define LINUX_DATASTORE_SHORT_PATH_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class path_target : uint8_t {
    item,   ///< what has a value
    folder  ///< what has something below it; a slash at the end is optional
};

/// The absolute paths that a path may mean, in byte order and without a slash at the end. An absolute path means itself, as it
/// stands. Any other means those items or folders whose last components it gives. A name stands for a "*" of the schema only
/// behind the component before it, and is not checked here.
std::vector<std::string> short_path_meanings(std::string_view path, path_target target);

/// The shortest end of an absolute path that begins with `beginning` and means only this path; empty if there is none. A slash at
/// the end, which a folder has, is kept.
std::string short_path_of(std::string_view path, std::string_view beginning = {});

#endif
