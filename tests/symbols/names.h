/* The names that libmorun exports without a prefix of its own: a program may well have them. */
/* clang-format off */
#define FOR_EACH_NAME(DO) \
  DO(context) DO(morun_map_db) DO(version_prerel) DO(npu_version) DO(supported_domains) DO(tavik_slim) \
  DO(dravin_math_matmul_pq) DO(int4_to_int8) DO(qdotxH) DO(qmmbp_HxD) DO(qmmbp_HxD_) DO(get_domain) \
  DO(get_domains_info) DO(get_dsp_support) DO(get_effective_domain_id) DO(get_ondra_support_info) \
  DO(get_tessel_support_info) DO(get_unsignedpd_support) DO(get_veyra_arch_ver) DO(get_vtcm_info) DO(is_CDSP) \
  DO(is_async_parlo_supported) DO(is_status_notification_supported) DO(is_unsignedpd_supported) \
  DO(is_valid_domain_id)
