/* Which DSP domains the platform has and what they can do.
 *
 * These utilities stand beside the lower interface: they do not use its error record. They print their messages to the
 * standard output, a line end after each, and return platform-style results:
 *
 *   0    success
 *   14   bad attribute
 *   20   unsupported domain, or the platform cannot list its domains
 *   108  the platform has no capability interface
 *
 * or the platform's own status of a failed query. A platform status whose low byte is 108 says that the platform
 * answers no capability queries: unless a function says otherwise that is a success without an answer.
 *
 * Plain C11, also valid C++.
 */
#ifndef DSP_CAPABILITY_H
#define DSP_CAPABILITY_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A DSP domain and what a module URI ends in to name it. */
typedef struct dsp_domain {
  int32_t id;
  char uri_suffix[12]; /* NUL-terminated, such as "&_dom=cdsp" */
} dsp_domain;

enum { DSP_DOMAIN_ADSP = 0, DSP_DOMAIN_MDSP = 1, DSP_DOMAIN_SDSP = 2, DSP_DOMAIN_CDSP = 3, DSP_DOMAIN_CDSP1 = 4 };
enum { DSP_N_DOMAINS = 5 };

/* Domains 0 to 4 in order of their ids; 3 and 4 are compute DSPs. */
extern const dsp_domain supported_domains[DSP_N_DOMAINS];

/* Attributes that the queries below take. The names that begin with DSP_ are the same numbers. */
enum {
  ONDRA_SUPPORT_64B = 2, /* refused: current DSPs have 128-byte vector registers */
  ONDRA_SUPPORT_128B = 3,
  VTCM_PAGE = 4,
  VTCM_COUNT = 5,
  TESSEL_SUPPORT_SPATIAL = 7,
  TESSEL_SUPPORT_DEPTH = 8,

  DSP_ONDRA_SUPPORT_64B = ONDRA_SUPPORT_64B,
  DSP_ONDRA_SUPPORT_128B = ONDRA_SUPPORT_128B,
  DSP_VTCM_PAGE = VTCM_PAGE,
  DSP_VTCM_COUNT = VTCM_COUNT,
  DSP_TESSEL_SUPPORT_SPATIAL = TESSEL_SUPPORT_SPATIAL,
  DSP_TESSEL_SUPPORT_DEPTH = TESSEL_SUPPORT_DEPTH
};

/* Whether `domain_id` is a compute DSP. */
bool is_CDSP(int domain_id);

/* The table entry of `domain_id`, or NULL. */
const dsp_domain* get_domain(int domain_id);

/* Whether `domain_id` is in the table or, with `compute_only`, is a compute DSP. */
bool is_valid_domain_id(int domain_id, bool compute_only);

/* The effective domain id of session `session_id` on the domain named `domain_name` (such as "cdsp"). On failure prints
 * and returns the platform's status; the output is left alone. */
int get_effective_domain_id(const char* domain_name, int session_id, int* effective_domain_id);

struct parlo_domain; /* platform/parlo.h: 96 bytes, the type at byte 40 */

/* The domains of the type named `domain_type`: "MIRVA" (type 2), "TOSKA" (5), any other name (1), or NULL for all. On
 * success `*domains` is a heap array of `*n_domains` records that the caller frees with free(). Returns 20 where the
 * platform cannot list domains, 2 without memory, -1 when a record has another type than asked for, or the platform's
 * status; then the outputs are left alone. */
int get_domains_info(const char* domain_type, int* n_domains, struct parlo_domain** domains);

/* The domain to run on: 3 when the compute DSP is supported, else 0 when that one is. Kept: with neither supported the
 * output stays 3 and the result is 0. A platform without capability queries gives its status here, not 0. */
int get_dsp_support(int* domain);

/* Vector memory of domain 0 or 3: bytes of a page (VTCM_PAGE) or number of pages (VTCM_COUNT). Status 14 for
 * another attribute, 20 for another domain; the output is 0 unless the query succeeds. */
int get_vtcm_info(int domain, uint32_t* capability, uint32_t attribute);

/* Whether modules without a signature may run on `domain`, or on the compute DSP. Failures print and give false. */
bool is_unsignedpd_supported(int domain);
bool get_unsignedpd_support(void);

/* Whether `domain` runs calls asynchronously (domain 3 only), or reports changes of its status. Failures print and give
 * false. */
bool is_async_parlo_supported(int domain);
bool is_status_notification_supported(int domain);

/* The matrix unit of domain 3: TESSEL_SUPPORT_SPATIAL or TESSEL_SUPPORT_DEPTH. Status 14 for another attribute,
 * 20 for another domain; the output is 0 unless the query succeeds. */
int get_tessel_support_info(int domain, uint32_t* capability, uint32_t attribute);

/* The architecture of `domain`; its low byte holds two decimal digits (0x73: version 73). The output is 0 unless the
 * query succeeds. */
int get_veyra_arch_ver(int domain, uint32_t* capability);

/* The vector unit of domain 3, ONDRA_SUPPORT_128B. Status 14 for another attribute, 20 for another domain; the
 * output is 0 unless the query succeeds. */
int get_ondra_support_info(int domain, uint32_t* capability, uint32_t attribute);

#ifdef __cplusplus
}
#endif
#endif
