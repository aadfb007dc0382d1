/* Which DSP domains the platform has, and what they can do.
 *
 * A domain is a DSP that the platform knows, by number. These functions stand beside the lower interface and do not
 * use its error record. They print messages to standard output, each with a line end unless a comment says
 * otherwise.
 *
 * Statuses
 *   Functions that return a status return 0 on success, the platform's own status of a query that failed, or:
 *     14    bad attribute: the attribute is not one that the function takes, or a required pointer is NULL
 *     20    unsupported: the domain has no such unit, or the platform cannot list its domains
 *     108   the platform has no capability interface
 *   A platform that answers no capability queries gives a status whose low byte is 108. Unless a comment says
 *   otherwise, a function then returns 0 without an answer. Comments list statuses in the order of the checks.
 *
 * Threads
 *   The functions keep no state. Any thread may call them where the platform allows its queries on any thread.
 *
 * Kept
 *   "Kept:" marks behaviour that surprises and that callers rely on. The library keeps such behaviour on purpose.
 *
 * Parameters and results that several functions share
 *   domain, domain_id   the number of a domain, or where the number is stored
 *   compute_only        whether only compute DSPs count
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

/* A DSP domain, and the ending by which a module's URI names the domain. */
typedef struct dsp_domain {
  int32_t id;          /* number of the domain */
  char uri_suffix[12]; /* NUL-terminated, such as "&_dom=cdsp" */
} dsp_domain;

enum { DSP_DOMAIN_ADSP = 0, DSP_DOMAIN_MDSP = 1, DSP_DOMAIN_SDSP = 2, DSP_DOMAIN_CDSP = 3, DSP_DOMAIN_CDSP1 = 4 };
enum { DSP_N_DOMAINS = 5 };

/* Domains 0 to 4 in the order of their ids. Domains 3 and 4 are compute DSPs. */
extern const dsp_domain supported_domains[DSP_N_DOMAINS];

/* Attributes that the queries below take. The names that begin with DSP_ stand for the same numbers. */
enum {
  ONDRA_SUPPORT_64B = 2, /* refused: the vector registers of current DSPs have 128 bytes */
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

/* Returns whether `domain_id` is a compute DSP. */
bool is_CDSP(int domain_id);

/* Returns the entry of supported_domains for `domain_id`, or NULL when there is none. */
const dsp_domain* get_domain(int domain_id);

/* Returns whether `domain_id` is a compute DSP where `compute_only` is true, and whether supported_domains has it
 * otherwise. */
bool is_valid_domain_id(int domain_id, bool compute_only);

/* Stores the effective domain id of a session.
 *
 *   domain_name           NUL-terminated, such as "cdsp"
 *   session_id            the platform's number of the session
 *   effective_domain_id   receives the id; unchanged on failure
 *
 * Returns 0, 14 when a pointer is NULL, or the platform's status, which the function prints. */
int get_effective_domain_id(const char* domain_name, int session_id, int* effective_domain_id);

struct parlo_domain; /* platform/parlo.h: 96 bytes, the type at byte 40 */

/* Lists the domains of one type.
 *
 *   domain_type   "MIRVA" (type 2), "TOSKA" (type 5), any other name (type 1), or NULL for domains of all types
 *   n_domains     receives the number of records
 *   domains       receives a heap array of records, which the caller frees with free()
 *
 * Returns 0, or, leaving both outputs unchanged:
 *   14   n_domains or domains is NULL
 *   20   the platform cannot list its domains
 *   the platform's status of the query for the count
 *   2    no memory. Kept: the message has no line end
 *   the platform's status of the query for the records
 *   -1   domain_type != NULL, and the platform gave a record of another type */
int get_domains_info(const char* domain_type, int* n_domains, struct parlo_domain** domains);

/* Stores the domain to run on: 3 when the compute DSP is supported, otherwise 0 when domain 0 is supported.
 *
 * Returns 0, 14 when `domain` is NULL, 108, or the platform's status. Unlike the other functions, this one returns
 * the platform's status, not 0, where the platform answers no capability queries; *domain is then 3.
 * Kept: where neither domain is supported, the function stores 3 and returns 0. */
int get_dsp_support(int* domain);

/* Asks for the vector memory of a DSP.
 *
 *   domain       0 or 3
 *   capability   receives bytes of a page (VTCM_PAGE) or the number of pages (VTCM_COUNT); 0 unless the query
 *                succeeds
 *   attribute    VTCM_PAGE or VTCM_COUNT
 *
 * Returns 0, or 14 (capability == NULL, then another attribute), 108, 20 (another domain), or the platform's
 * status. */
int get_vtcm_info(int domain, uint32_t* capability, uint32_t attribute);

/* Return whether modules without a signature may run on `domain`, or on the compute DSP (domain 3). A failure
 * prints a message and gives false. Kept: the message on a failed query has no line end. */
bool is_unsignedpd_supported(int domain);
bool get_unsignedpd_support(void);

/* Return whether `domain` runs calls asynchronously, which only domain 3 can, and whether `domain` reports changes
 * of its status. A failure prints a message and gives false. */
bool is_async_parlo_supported(int domain);
bool is_status_notification_supported(int domain);

/* Asks for the matrix unit of a DSP.
 *
 *   domain       3
 *   capability   receives the platform's answer; 0 unless the query succeeds
 *   attribute    TESSEL_SUPPORT_SPATIAL or TESSEL_SUPPORT_DEPTH
 *
 * Returns 0, or 14 (capability == NULL, then another attribute), 108, 20 (another domain), or the platform's
 * status. */
int get_tessel_support_info(int domain, uint32_t* capability, uint32_t attribute);

/* Asks for the architecture of a DSP.
 *
 *   domain       any
 *   capability   receives the architecture; the low byte holds two decimal digits (0x73 is version 73). 0 unless
 *                the query succeeds
 *
 * Returns 0, or 14 (capability == NULL), 108, or the platform's status. */
int get_veyra_arch_ver(int domain, uint32_t* capability);

/* Asks for the vector unit of a DSP.
 *
 *   domain       3
 *   capability   receives the platform's answer; 0 unless the query succeeds
 *   attribute    ONDRA_SUPPORT_128B
 *
 * Returns 0, or 14 (capability == NULL, then another attribute), 108, 20 (another domain), or the platform's
 * status. */
int get_ondra_support_info(int domain, uint32_t* capability, uint32_t attribute);

#ifdef __cplusplus
}
#endif
#endif
