/**
 * @file tavrix_validation.h
 */
#ifndef TAVRIX_VALIDATION_H
#define TAVRIX_VALIDATION_H

#include "tavrix_export.h"

#ifdef __cplusplus
extern "C" {
#endif

TAVRIX_API int validate_port_id(const char *value);
TAVRIX_API int validate_c_port_id(const char *value);
TAVRIX_API int validate_d_port_id(const char *value);
TAVRIX_API int validate_vlan_name_id(const char *value);
TAVRIX_API int validate_mzu_id(const char *value);
TAVRIX_API int validate_mzu_sw_upgrade_filename(const char *value);
TAVRIX_API int validate_unit_sw_upgrade_filename(const char *value);
TAVRIX_API int validate_date(const char *value);
TAVRIX_API int validate_time(const char *value);
TAVRIX_API int validate_uuid(const char *value);
TAVRIX_API int validate_ip_address(const char *value);
TAVRIX_API int validate_mac_address(const char *value);
TAVRIX_API int validate_description(const char *value);
TAVRIX_API int validate_password(const char *value);
TAVRIX_API int validate_username(const char *value);
TAVRIX_API int validate_status(const char *value);
TAVRIX_API int validate_vlan_mode(const char *value);
TAVRIX_API int validate_unit_sw_bank(const char *value);
TAVRIX_API int validate_mzu_model(const char *value);
TAVRIX_API int validate_entity_name(const char *value);
TAVRIX_API int validate_entity_extension(const char *value);
TAVRIX_API int validate_vlan_id(int value);
TAVRIX_API int validate_unit_id(int value);
TAVRIX_API int validate_laser_id(int value);
TAVRIX_API int validate_olt_id(int value);
TAVRIX_API int validate_onu_id(int value);
TAVRIX_API int validate_port_number(int value);
TAVRIX_API int validate_periodic_interval(int value);
TAVRIX_API int validate_port_link_speed(int value);
TAVRIX_API int validate_date_time(const char *date, const char *time);

#ifdef __cplusplus
}
#endif

#endif
