// Domain helpers shared by the FIFO naming, labelling and monitor choice.
#ifndef SABLE_API_SABLE_COMM_INTERNAL_H
#define SABLE_API_SABLE_COMM_INTERNAL_H

#include "sable_comm.h"

// The host's domain (1 or 2), or 0 with an error line when the build's domain is unknown.
SabloDomain GetCurrDomain();
// The pipe lives in the Elm domain: only on an Elm host, for domain 0 or 2.
bool IsElmDomainPipe(const SabloDomain& domain);
// The remote is in another domain than this host.
bool IsCrossDomainPipe(const SabloDomain& domain);

#endif
