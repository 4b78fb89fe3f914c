#!/usr/bin/python3
"""A real `loopstore serve --http` seen from outside: records a little over
gRPC, then reads it back over HTTP, scrapes /metrics with the Prometheus
client's own parser, and asks the gRPC health and reflection services.

Usage: http_end_to_end.py <loopstore program>. Exits non-zero on failure.
"""
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import urllib.error
import urllib.request

import grpc
from prometheus_client.parser import text_string_to_metric_families

LOOPSTORE = sys.argv[1]
SERVING = b"\x08\x01"  # grpc.health.v1.HealthCheckResponse{status: SERVING}
LIST_SERVICES = b"\x3a\x00"  # ServerReflectionRequest{list_services: ""}


def start_server(data):
    server = subprocess.Popen(
        [LOOPSTORE, "serve", "--data", data, "--listen", "127.0.0.1:0",
         "--http", "127.0.0.1:0", "--pool-files", "8", "--pool-file-size", "1M"],
        stderr=subprocess.PIPE, text=True,
        env=dict(os.environ, LOOPSTORE_LOG_LEVEL="ERROR"))
    ports = {}
    for line in server.stderr:
        found = re.match(r"loopstore: (listening|HTTP) on .* \(port (\d+)\)", line)
        if found:
            ports[found.group(1)] = int(found.group(2))
        if len(ports) == 2:
            return server, ports["listening"], ports["HTTP"]
    raise SystemExit("the server ended before listening: exit %s" % server.wait())


def cli(*args):
    subprocess.run([LOOPSTORE, *args], check=True, capture_output=True)


def get(url, method="GET", body=None):
    request = urllib.request.Request(url, method=method, data=body)
    try:
        with urllib.request.urlopen(request, timeout=30) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


def metric(families, name, labels):
    for family in families:
        for sample in family.samples:
            if sample.name == name and all(sample.labels.get(k) == v for k, v in labels.items()):
                return sample.value
    return None


def check(condition, what):
    if not condition:
        raise SystemExit("FAILED: " + what)
    print("ok:", what)


def check_http(http):
    status, body = get(http + "/healthz")
    check(status == 200 and body.strip() == "ok", "/healthz answers ok")
    status, body = get(http + "/api/tracks")
    tracks = json.loads(body)["tracks"]
    check(status == 200 and tracks[0]["id"] == 7 and tracks[0]["current_size"] > 0,
          "/api/tracks shows the recorded track")
    status, body = get(http + "/api/tracks/7/protections", "POST",
                       json.dumps({"from_ms": tracks[0]["beginning_ms"],
                                   "to_ms": tracks[0]["end_ms"], "label": "e2e"}).encode())
    check(status == 201, "a protection is created over HTTP: %s" % body)
    status, _ = get(http + "/api/protections/%d" % json.loads(body)["id"], "DELETE")
    check(status == 204, "and removed")
    status, body = get(http + "/api/tracks/99/timeline")
    check(status == 404 and "99" in json.loads(body)["error"], "an unknown track is 404")


def check_metrics(http):
    status, text = get(http + "/metrics")
    check(status == 200, "/metrics answers")
    families = list(text_string_to_metric_families(text))
    check(metric(families, "loopstore_track_used_bytes", {"track": "7"}) > 0,
          "the track's bytes show in /metrics")
    written = metric(families, "loopstore_track_written_bytes_total", {"track": "7"})
    if written is None:
        print("note: this storage keeps no per-track counters (no timeline service)")
    else:
        check(written > 0, "the track's written bytes counter moved")
    calls = metric(families, "loopstore_grpc_request_duration_seconds_count",
                   {"method": "/loopstore.rpc.TrackWriter/Write"})
    check(calls is not None and calls >= 1, "the write stream was timed")
    check(metric(families, "loopstore_http_request_duration_seconds_count",
                 {"route": "/api/tracks"}) >= 1, "the HTTP route was timed")
    check(metric(families, "loopstore_http_errors_total", {"class": "4xx"}) >= 1,
          "the 404 was counted")


def check_grpc(address):
    with grpc.insecure_channel(address) as channel:
        health = channel.unary_unary("/grpc.health.v1.Health/Check")
        check(health(b"", timeout=10) == SERVING, "gRPC health says SERVING")
        reflection = channel.stream_stream(
            "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo")
        answer = b"".join(reflection(iter([LIST_SERVICES]), timeout=10))
        check(b"loopstore.rpc.TrackWriter" in answer and b"grpc.health.v1.Health" in answer,
              "reflection lists the services")


def main():
    with tempfile.TemporaryDirectory() as data:
        server, grpc_port, http_port = start_server(data)
        try:
            address = "127.0.0.1:%d" % grpc_port
            cli("track", "create", "--id", "7", "--size", "4M", "--server", address)
            cli("record", "--track", "7", "--synthetic", "--duration", "2s",
                "--bitrate", "500k", "--server", address)
            http = "http://127.0.0.1:%d" % http_port
            check_http(http)
            check_metrics(http)
            check_grpc(address)
        finally:
            server.send_signal(signal.SIGTERM)
            code = server.wait(timeout=60)
        check(code == 0, "the server stops cleanly")


if __name__ == "__main__":
    main()
