// The gate is set once, before the threads that ask it exist: it is read without a lock.
#include "pkgdist_data_recv_gate.h"

#include "pkgdist_atomic.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_status.h"

using namespace pkgdist;

pkgdist_data_gate_cb pkgdist::gate = nullptr;

namespace {

void* gate_context = nullptr;

}  // namespace

std::optional<PkgdistStatus> pkgdist::gate_refusal(uint32_t operation, uint32_t location,
                                                   const char* name, uint32_t size, uint32_t mode,
                                                   uint32_t kind) {
  const pkgdist_data_gate_cb ask = load(gate);
  if (ask == nullptr) return std::nullopt;
  const int answer = ask(operation, location, name, size, mode, kind, gate_context);
  if (answer == PKGDIST_GATE_ACCEPT) return std::nullopt;
  PKGDIST_INFO("DATA Recv Gate - File %s Loc %d Operation %d Answer %d\n", name, location,
               operation, answer);
  return answer == PKGDIST_GATE_PRESENT ? 0 : pkgdist_status_from_errno(answer);
}

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_data_set_gate(pkgdist_data_gate_cb asked,
                                                                       void* ctx) {
  if (asked == nullptr || load(G_data_req_socket) != -1) {
    PKGDIST_ERR("data gate is NULL or the data side has been started");
    return PKGDIST_ERR_INVALID;
  }
  gate_context = ctx;
  store(gate, asked);
  return 0;
}
