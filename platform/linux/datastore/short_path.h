/// Short paths: an operator may specify a path of the configuration by its end only.
#ifndef LINUX_DATASTORE_SHORT_PATH_H
#define LINUX_DATASTORE_SHORT_PATH_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class path_target : uint8_t {
    item,   ///< a path with a value
    folder  ///< a path with other paths below it; a slash at its end is optional
};

/// Returns the absolute paths that a path may stand for, in byte order and without a slash at the end. An absolute path is
/// returned unchanged. Any other path stands for the items or folders whose paths end with its components. A name matches a
/// "*" of the schema only if the component before it is specified, too; the form of the name is not checked here.
std::vector<std::string> short_path_meanings(std::string_view path, path_target target);

/// Returns the shortest suffix of an absolute path that begins with `beginning` and stands for this path only, or an empty
/// string if there is none. The path of a folder must end in a slash, which is kept.
std::string short_path_of(std::string_view path, std::string_view beginning = {});

#endif
