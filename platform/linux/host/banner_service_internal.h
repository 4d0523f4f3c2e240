/// Banners for the rest of the Linux platform.
#ifndef LINUX_HOST_BANNER_SERVICE_INTERNAL_H
#define LINUX_HOST_BANNER_SERVICE_INTERNAL_H

/// The platform's own banners, plain texts. Most routers have none.
inline constexpr char banner_platform_login_file[] = "/etc/ssh_cfg_agent/platform_banner.login";
inline constexpr char banner_platform_motd_file[] = "/etc/ssh_cfg_agent/platform_banner.motd";

#endif
