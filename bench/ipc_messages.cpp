// What it costs to make a message ready to be sent: ours beside a JSON library's object that gets
// the same ten keys by the same rule, missing or mistyped ones their default.
//
// Cases are named "<pattern>/<contestant>": "normalize_new" begins with an empty message and frees
// it, "normalize_ready" looks through one that holds all of its keys.
#include <benchmark/benchmark.h>
#include <sys/time.h>

#include <nlohmann/json.hpp>

#include <kest/ipc/IdGenerator.h>
#include <kest/ipc/messages.h>

namespace {

using kest::ipc::messages::ValidateAuthToken;
using nlohmann::json;

template <typename Default>
void repair(json& message, const char* key, bool (json::*isType)() const noexcept,
            Default makeDefault) {
    json& value = message[key];
    if (!(value.*isType)()) value = makeDefault();
}

json timeOfDay() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return json::array({now.tv_sec, now.tv_usec});
}

void normalize(json& message) {
    message["functionName"] = "ValidateAuthToken";
    repair(message, "responseExpected", &json::is_boolean, [] { return true; });
    for (const char* text : {"authToken", "from", "to"})
        repair(message, text, &json::is_string, [] { return ""; });
    repair(message, "transactionId", &json::is_number_integer, [] { return -1; });
    repair(message, "isBroadcast", &json::is_boolean, [] { return false; });
    repair(message, "id", &json::is_number_integer, &IdGenerator::GenerateId);
    repair(message, "timeStamp", &json::is_array, timeOfDay);
    repair(message, "queueIfDestUnavailable", &json::is_boolean, [] { return true; });
}

void normalize(ValidateAuthToken& message) {
    message.NormalizeFields();
}

template <typename Message>
void fresh(benchmark::State& state) {
    for (auto _ : state) {
        Message message;
        normalize(message);
        benchmark::DoNotOptimize(message);
    }
}

template <typename Message>
void ready(benchmark::State& state) {
    Message message;
    normalize(message);
    for (auto _ : state) {
        normalize(message);
        benchmark::DoNotOptimize(message);
    }
}

BENCHMARK_TEMPLATE(fresh, ValidateAuthToken)->Name("normalize_new/ours");
BENCHMARK_TEMPLATE(fresh, json)->Name("normalize_new/nlohmann");
BENCHMARK_TEMPLATE(ready, ValidateAuthToken)->Name("normalize_ready/ours");
BENCHMARK_TEMPLATE(ready, json)->Name("normalize_ready/nlohmann");

}  // namespace
