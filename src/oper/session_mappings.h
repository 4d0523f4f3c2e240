/// Enumeration values for the names that SSH processes report; -1 for an unknown name.
#ifndef OPER_SESSION_MAPPINGS_H
#define OPER_SESSION_MAPPINGS_H

#include <cstdint>
#include <string_view>

inline constexpr int32_t unknown_name = -1;

int32_t authen_type_of(std::string_view name);   ///< authen_type_en
int32_t kex_name_of(std::string_view name);      ///< kex_name_en
int32_t hostkey_type_of(std::string_view name);  ///< hostkey_type_en
int32_t cipher_type_of(std::string_view name);   ///< cipher_type_en
int32_t mac_type_of(std::string_view name);      ///< mac_type_en

#endif
