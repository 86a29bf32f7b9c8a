// SPDX-License-Identifier: Apache-2.0
// The library's logging: the Android log with tag "TAVIKM", and the system buffer for a few
// Keymaster-key messages.
#ifndef TAVIKM_COMMON_LOG_H_
#define TAVIKM_COMMON_LOG_H_

#include <android/log.h>

#define KM_LOG_TAG "TAVIKM"
// Buffer number of the system log (log_id_t LOG_ID_SYSTEM).
#define KM_LOG_BUFFER_SYSTEM 3

#define KM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, KM_LOG_TAG, __VA_ARGS__)
#define KM_LOGW(...) __android_log_print(ANDROID_LOG_WARN, KM_LOG_TAG, __VA_ARGS__)
#define KM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, KM_LOG_TAG, __VA_ARGS__)
#define KM_SLOGE(...) \
  __android_log_buf_print(KM_LOG_BUFFER_SYSTEM, ANDROID_LOG_ERROR, KM_LOG_TAG, __VA_ARGS__)
#define KM_SLOGI(...) \
  __android_log_buf_print(KM_LOG_BUFFER_SYSTEM, ANDROID_LOG_INFO, KM_LOG_TAG, __VA_ARGS__)

#endif  // TAVIKM_COMMON_LOG_H_
