/// Tokens of banners: "$(name)" in a text is replaced by a value of the router.
#ifndef LINUX_HOST_BANNER_TOKENS_H
#define LINUX_HOST_BANNER_TOKENS_H

#include <string>
#include <string_view>

/// The text with every known token replaced by its current value. Unknown tokens are kept. Inserted text is not
/// expanded again.
///
///     $(hostname)  the router's name, up to its first dot
///     $(domain)    the domain: what follows that dot, or else the first one of /etc/resolv.conf; empty when there is none
///     $(date)      the date, as 2026-11-21
///     $(time)      the time of day with its zone, as 13:05:00 UTC
///     $(line)      the kind of line, always ssh
std::string banner_expand_tokens(std::string_view text);

#endif
