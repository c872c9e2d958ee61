/* Groups, ports and card class that pkgdist-lead and pkgdist-node use when they are told nothing
 * else: pass these to the start-up calls of pkgdist/pkgdist_recv.h unless your lead has others.
 * Addresses and ports are in host byte order. */
#ifndef PKGDIST_DEFAULTS_H
#define PKGDIST_DEFAULTS_H

/* instcomm_pkgdist_ctrl_recv_init */
#define PKGDIST_DEFAULT_CONTROL_GROUP 0xEFFF4701u /* 239.255.71.1; --ctrl-group */
#define PKGDIST_DEFAULT_CONTROL_PORT 7100u
#define PKGDIST_DEFAULT_LEAD_PORT 7102u /* --lead-port */
#define PKGDIST_DEFAULT_NODE_PORT 7103u /* --node-port */
/* A class that no message of a lead is reserved for: the node takes what is for everybody, and what
 * names the node. */
#define PKGDIST_DEFAULT_CARD_CLASS 3u

/* instcomm_pkgdist_data_recv_init */
#define PKGDIST_DEFAULT_DATA_GROUP 0xEFFF4702u /* 239.255.71.2; --data-group */
#define PKGDIST_DEFAULT_DATA_PORT 7101u
#define PKGDIST_DEFAULT_REQUEST_PORT 7104u /* --req-port */

#endif
