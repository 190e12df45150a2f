// Each system call of the transport's operations fails in turn.
#include "client_scenarios.h"
#include "server_scenarios.h"

using namespace nth_call;

int main(int argc, char **argv) {
  std::vector<Operation> operations = {
      operation<ServerOpen>("server_open"),
      operation<ServerAccept>("server_accept"),
      operation<ServerRequest>("server_request"),
      operation<ServerHangUp>("server_hang_up"),
      operation<ServerEnd>("server_end"),
      operation<PlainServerRequest>("plain_server_request"),
      operation<ServerOfDescriptor>("server_of_descriptor"),
      operation<ClientOpen>("client_open"),
      operation<ClientRetry>("client_retry"),
      operation<ClientSyncSend>("client_sync_send"),
      operation<ClientAsyncSend>("client_async_send"),
      operation<PlainClientSend>("plain_client_send"),
      operation<SignalEmit>("signal_emit_stream", SOCK_STREAM),
      operation<SignalEmit>("signal_emit_datagram", SOCK_DGRAM),
      operation<QueuePush>("queue_push"),
  };
  operations[0].descriptors_if_refused = 1;  // contract: a descriptor that cannot listen is left open
  return run(argc, argv, "transport", operations);
}
