#include <grpcpp/grpcpp.h>

#include <semaphore>
#include <thread>

#include "peer.grpc.pb.h"
#include "peers.h"

namespace peers {
namespace {

class server final : public peer::Peer::Service {
    ::grpc::Status Requests(::grpc::ServerContext* /*context*/,
                            ::grpc::ServerReaderWriter<peer::Value, peer::Value>* stream) override {
        peer::Value in;
        peer::Value out;
        out.set_bytes(std::string(result_bytes, '\0'));
        while (stream->Read(&in)) {
            stream->Write(out);
        }
        return ::grpc::Status::OK;
    }
    ::grpc::Status Query(::grpc::ServerContext* /*context*/, const peer::Value* /*in*/,
                         peer::Value* out) override {
        out->set_bytes(std::string(answer_bytes, '\0'));
        return ::grpc::Status::OK;
    }
};

void serve(const std::string& path) {
    server service;
    ::grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + path, ::grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    builder.BuildAndStart()->Wait();
}

class grpc_client : public client {
  public:
    explicit grpc_client(const std::string& path)
        : stub_(peer::Peer::NewStub(
              ::grpc::CreateChannel("unix:" + path, ::grpc::InsecureChannelCredentials()))) {}
    void stream(std::uint64_t requests) override {
        ::grpc::ClientContext context;
        const auto calls = stub_->Requests(&context);
        std::counting_semaphore<> free_places(most_outstanding);
        std::thread receiving([&] {
            peer::Value result;
            for (std::uint64_t i = 0; i < requests; ++i) {
                require(calls->Read(&result), "Read");
                free_places.release();
            }
        });
        peer::Value request;
        request.set_bytes(std::string(request_bytes, '\0'));
        for (std::uint64_t i = 0; i < requests; ++i) {
            free_places.acquire();
            require(calls->Write(request), "Write");
        }
        receiving.join();
        calls->WritesDone();
        (void)calls->Finish();
    }
    void query() override {
        ::grpc::ClientContext context;
        peer::Value request;
        peer::Value answer;
        request.set_bytes(std::string(query_bytes, '\0'));
        require(stub_->Query(&context, request, &answer).ok(), "Query");
    }

  private:
    std::unique_ptr<peer::Peer::Stub> stub_;
};

}  // namespace

const kind grpc_kind{"gRPC", serve, [](const std::string& path) -> std::unique_ptr<client> {
                         return std::make_unique<grpc_client>(path);
                     }};

}  // namespace peers
