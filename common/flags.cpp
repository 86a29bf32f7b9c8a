// SPDX-License-Identifier: Apache-2.0
// The feature flags: their exported property names and how a flag is read.
#include <string.h>

#include <cutils/properties.h>

#include "common/flags.h"
#include "common/log.h"
#include "tavikm.h"

const char* supportMdfpp = "ro.product.tavi.support_mdfpp";
const char* supportCBConly = "ro.product.tavi.support_cbc_only";
const char* supportRekKek = "ro.product.tavi.support_rek_kek";

bool km_flag_is_set(const char* property) {
  // A property name pointed at nothing names no property: the flag is unset.
  if (!property) return false;
  char value[PROPERTY_VALUE_MAX] = {};
  property_get(property, value, "");
  return strcmp(value, "true") == 0;
}

bool mdfpp_property_get(const char* key) {
  if (!key) {
    KM_LOGE("%s::Failed, key is NULL! \n", "mdfpp_property_get");
    return false;
  }
  return km_flag_is_set(key);
}
