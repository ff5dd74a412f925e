import sys
import types

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf

NOT_AUTHED = "Not authenticated. Run register() or login(private_key) first."


def payload(**overrides):
    p = {
        "eval_id": "e-1",
        "submission_type": "signal",
        "graph": {"type": "feature", "node": "close"},
        "universe_id": "universe_top50",
        "signal_pool_id": "pool-a",
        "is_stats": {"sharpe": 1.0},
        "is_pnl_mi": 0.2,
        "metaparameters": {"a": "1"},
        "search_state": {},
        "era_id": 3,
        "expression_elapsed_seconds": 0.5,
        "idempotency_key": "key-1",
        "_queue_id": 9,
    }
    p.update(overrides)
    return {k: v for k, v in p.items() if v is not Ellipsis}


# ---------------------------------------------------------------- pools


@pytest.mark.parametrize(
    "entry, expected",
    [
        ({"name": "p1"}, "p1"),
        ({"signal_pool_id": "sp", "name": "p1"}, "sp"),
        ({"signal_pool_id": "", "name": "p1"}, "p1"),
        ({"signal_pool_id": 7, "name": "p1"}, None),
        ({"name": ""}, None),
        (types.SimpleNamespace(name="obj"), "obj"),
        (types.SimpleNamespace(signal_pool_id="o-sp"), "o-sp"),
        (object(), None),
        ("p", None),
    ],
)
def test_pool_id_from_entry(entry, expected):
    assert st._pool_id_from_config_entry(entry) == expected


@pytest.mark.parametrize(
    "era_config, expected",
    [
        (None, None),
        ({"signal_pools": [{"name": 3}, {"name": "second"}]}, "second"),
        ({"signal_pools": ({"signal_pool_id": "t"},)}, "t"),
        ({"signal_pools": "abc"}, None),
        ({}, None),
        (types.SimpleNamespace(signal_pools=[], _data={"signal_pools": [{"name": "from-data"}]}), "from-data"),
        (types.SimpleNamespace(signal_pools=[{"name": "own"}], _data={"signal_pools": [{"name": "data"}]}), "own"),
        (types.SimpleNamespace(_data={"signal_pools": "x"}), None),
        (types.SimpleNamespace(signal_pools=[{"name": None}]), None),
    ],
)
def test_first_signal_pool_id(era_config, expected):
    assert st._first_signal_pool_id_from_era_config(era_config) == expected


# ---------------------------------------------------------------- configuration and auth


@pytest.mark.parametrize(
    "url, expected",
    [
        ("http://127.0.0.1:9", "http://127.0.0.1:9"),
        ("https://service.example.invalid", None),
        ("", None),
        (8080, None),
        (None, None),
    ],
)
def test_service_url(service, url, expected):
    service["onboarding"]._config["server_url"] = url
    assert st._resolve_signal_service_url() == expected


def test_service_url_without_onboarding_module(service, monkeypatch):
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", None)
    assert st._resolve_signal_service_url() is None
    assert st._submission_auth_obj() is None
    del service["onboarding"]._config
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", service["onboarding"])
    assert st._resolve_signal_service_url() is None


def test_auth_object_sources_in_order(service, monkeypatch):
    manager = service["auth_obj"]
    assert st._submission_auth_obj() is manager
    direct = cf.FakeAuth()
    monkeypatch.setattr(st, "_auth", direct, raising=False)
    assert st._submission_auth_obj() is direct
    monkeypatch.setattr(st, "_library_runtime", types.SimpleNamespace(auth_proxy=None), raising=False)
    assert st._submission_auth_obj() is direct
    proxy = cf.FakeAuth()
    monkeypatch.setattr(st, "_library_runtime", types.SimpleNamespace(auth_proxy=proxy), raising=False)
    assert st._submission_auth_obj() is proxy


def test_token(service):
    assert st._get_submission_token() == "tok-1"
    service["auth_obj"].token = ""
    with pytest.raises(cf.AuthError) as ei:
        st._get_submission_token()
    assert str(ei.value) == NOT_AUTHED


def test_token_without_auth_object(service):
    service["onboarding"]._auth_manager = None
    with pytest.raises(cf.AuthError) as ei:
        st._get_submission_token()
    assert str(ei.value) == NOT_AUTHED


def test_not_authenticated_reason_is_rewritten_and_chained(service):
    cause = cf.AuthError("session gone", reason="not_authenticated")
    service["auth_obj"].error = cause
    with pytest.raises(cf.AuthError) as ei:
        st._get_submission_token()
    assert str(ei.value) == NOT_AUTHED and ei.value is not cause and ei.value.__cause__ is cause


@pytest.mark.parametrize("error", [cf.AuthError("expired", reason="expired"), cf.AuthError("bare"), RuntimeError("x")])
def test_other_token_errors_pass_unchanged(service, error):
    service["auth_obj"].error = error
    with pytest.raises(type(error)) as ei:
        st._get_submission_token()
    assert ei.value is error


def test_client_build(service):
    client = st._build_signal_service_client()
    assert (client.server_url, client.token, client.timeout) == ("http://127.0.0.1:8765", "tok-1", 30.0)
    assert st._build_signal_service_client(timeout=5).timeout == 5


def test_placeholder_server_fails_before_token(service):
    service["onboarding"]._config["server_url"] = "http://x.invalid"
    with pytest.raises(ConnectionError) as ei:
        st._build_signal_service_client()
    assert str(ei.value) == "No submission server configured"
    assert service["auth_obj"].calls == 0 and service["submit"].clients == []


# ---------------------------------------------------------------- submitting


def test_submit_payload_sends_the_nine_keywords(service):
    receipt = st._submit_signal_payload(payload())
    client, = service["submit"].clients
    assert receipt.submission_id == "sub-1"
    assert list(client.submitted[0]) == list(st._SIGNAL_SUBMIT_KWARGS)
    assert client.submitted[0]["idempotency_key"] == "key-1" and client.closed == 1


@pytest.mark.parametrize(
    "result, exc_type, message",
    [
        (cf.ClientResult(status_code=0, error="reset by peer"), ConnectionError, "reset by peer"),
        (cf.ClientResult(status_code=0), ConnectionError, "transport error during signal submission"),
        (cf.ClientResult(status_code=500), ConnectionError, "Server error 500 during signal submission"),
        (cf.ClientResult(status_code=503, error="busy"), ConnectionError, "Server error 503 during signal submission"),
        (cf.ClientResult(status_code=200, submission_id=""), st.SubmissionProtocolError,
         "signal submission response missing required submission_id"),
        (cf.ClientResult(status_code=200, submission_id=None), st.SubmissionProtocolError,
         "signal submission response missing required submission_id"),
    ],
)
def test_submit_failures(service, result, exc_type, message):
    service["submit"].result = result
    with pytest.raises(exc_type) as ei:
        st._submit_signal_payload(payload())
    assert str(ei.value) == message
    assert [c.closed for c in service["submit"].clients] == [1]


@pytest.mark.parametrize("code", [199, 300, 401, 403, 404, 499])
@pytest.mark.parametrize(
    "error, body, reason, details",
    [("denied", {"code": "x"}, "denied", {"code": "x"}), (None, ["a"], "unknown", None), ("", None, "unknown", None)],
)
def test_refusals(service, code, error, body, reason, details):
    service["submit"].result = cf.ClientResult(status_code=code, error=error, body=body)
    with pytest.raises(service["submit"].SubmissionRejectedError) as ei:
        st._submit_signal_payload(payload())
    err = ei.value
    assert (err.status_code, err.reason, err.details, err.body) == (code, reason, details, body)
    assert [c.closed for c in service["submit"].clients] == [1]


@pytest.mark.parametrize("code", [200, 201, 299])
def test_success_codes(service, code):
    service["submit"].result = cf.ClientResult(status_code=code, submission_id="s-9")
    assert st._submit_signal_payload(payload()).submission_id == "s-9"


@pytest.mark.parametrize(
    "bad_payload, message",
    [
        (payload(idempotency_key=Ellipsis), "idempotency_key is required"),
        (payload(signal_pool_id=None), "signal_pool_id must be a non-empty string"),
        (payload(is_mi=1), "is_mi is no longer supported; provide is_pnl_mi as a scalar"),
    ],
)
def test_local_contract_stops_before_request_and_closes(service, bad_payload, message):
    with pytest.raises(ValueError) as ei:
        st._submit_signal_payload(bad_payload)
    assert str(ei.value) == message
    client, = service["submit"].clients
    assert client.submitted == [] and client.closed == 1


def test_transport_exception_still_closes(service, monkeypatch):
    mod = cf.submit_module(submit_error=OSError("broken pipe"))
    monkeypatch.setitem(sys.modules, "tarnwicket.submit", mod)
    with pytest.raises(OSError):
        st._submit_signal_payload(payload())
    assert mod.clients[0].closed == 1


def test_client_without_close(service, monkeypatch):
    mod = cf.submit_module(with_close=False)
    monkeypatch.setitem(sys.modules, "tarnwicket.submit", mod)
    assert st._submit_signal_payload(payload()).submission_id == "sub-1"
    with pytest.raises(ValueError):
        st._submit_signal_payload(payload(idempotency_key=Ellipsis))


def test_failing_close_replaces_error_in_flight(service):
    def close(self):
        raise RuntimeError("close failed")

    service["submit"].SignalServiceClient.close = close
    with pytest.raises(RuntimeError) as ei:
        st._submit_signal_payload(payload(idempotency_key=Ellipsis))
    assert isinstance(ei.value.__context__, ValueError)


def test_public_submit_signal_cannot_complete_without_key(service):
    with pytest.raises(ValueError) as ei:
        st.submit_signal({"type": "feature"}, "u", "pool-a", {"sharpe": 1.0}, 0.1, 0.2, metaparameters={"a": "b"})
    assert str(ei.value) == "idempotency_key is required"
    client, = service["submit"].clients
    assert client.submitted == [] and client.closed == 1
    with pytest.raises(TypeError):
        st.submit_signal({}, "u", "p", {}, 0.1, 0.2, {"a": "b"})


def test_public_submit_signal_packs_its_arguments(service, monkeypatch):
    seen = []
    monkeypatch.setattr(st, "_submit_signal_payload", lambda p: seen.append(p) or "receipt")
    assert st.submit_signal("g", "u", "p", {"s": 1}, 0.1, 0.2, search_state={"k": 1}) == "receipt"
    assert seen == [
        {
            "graph": "g", "universe_id": "u", "signal_pool_id": "p", "is_stats": {"s": 1}, "is_pnl_mi": 0.1,
            "expression_elapsed_seconds": 0.2, "metaparameters": None, "search_state": {"k": 1},
        }
    ]


def test_result_to_receipt_uses_given_types():
    class Receipt:
        def __init__(self, sid):
            self.sid = sid

    class Rejected(Exception):
        def __init__(self, code, error, details, body=None):
            super().__init__(code, error, details, body)

    assert st._result_to_receipt(cf.ClientResult(submission_id="x"), "strategy", Receipt, Rejected).sid == "x"
    with pytest.raises(Rejected) as ei:
        st._result_to_receipt(cf.ClientResult(status_code=409, error="dup", body={"a": 1}), "strategy", Receipt, Rejected)
    assert ei.value.args == (409, "dup", {"a": 1}, {"a": 1})
    with pytest.raises(st.SubmissionProtocolError, match="^strategy submission response missing required submission_id$"):
        st._result_to_receipt(cf.ClientResult(submission_id=""), "strategy", Receipt, Rejected)


@pytest.mark.parametrize("body, expected", [({"a": 1}, {"a": 1}), ([1], None), (None, None), ("x", None)])
def test_details_from_body(body, expected):
    assert st._details_from_body(body) == expected


# ---------------------------------------------------------------- polling


def test_poll_maps_the_body(service):
    body = {
        "status": "useful", "is_stats": {"sharpe": 1}, "payment": 3, "rejection_reason": None,
        "signal_pool_id": "p", "is_correlation": 0.1, "is_pnl_mi": 0.2, "agent_is_pnl_mi": 0.3,
        "is_weights_mi": 0.4, "failure_reason": "fr", "failure_detail": "fd", "ignored": 1,
    }
    service["submit"].result = cf.ClientResult(status_code=200, body=body)
    status = st.poll_status("sub-7")
    assert status.args == ("sub-7", "useful", {"sharpe": 1}, 3, None)
    assert status.kwargs == {
        "signal_pool_id": "p", "is_correlation": 0.1, "is_pnl_mi": 0.2, "agent_is_pnl_mi": 0.3,
        "is_weights_mi": 0.4, "failure_reason": "fr", "failure_detail": "fd",
    }
    client, = service["submit"].clients
    assert client.polled == ["sub-7"] and client.closed == 1


@pytest.mark.parametrize("body", [None, ["x"], "text"])
def test_poll_with_non_record_body_defaults(service, body):
    service["submit"].result = cf.ClientResult(status_code=200, body=body)
    status = st._poll_status_internal("s")
    assert status.args == ("s", "is_validating", {}, None, None)
    assert set(status.kwargs.values()) == {None}


@pytest.mark.parametrize(
    "result, exc_type, message",
    [
        (cf.ClientResult(status_code=0, error="timeout"), ConnectionError, "timeout"),
        (cf.ClientResult(status_code=0), ConnectionError, "transport error while polling s-3"),
        (cf.ClientResult(status_code=502), ConnectionError, "Server error 502 while polling s-3"),
    ],
)
def test_poll_failures(service, result, exc_type, message):
    service["submit"].result = result
    with pytest.raises(exc_type) as ei:
        st.poll_status("s-3")
    assert str(ei.value) == message
    assert service["submit"].clients[0].closed == 1


def test_poll_refusal_passes_list_body(service):
    service["submit"].result = cf.ClientResult(status_code=404, body=["gone"])
    with pytest.raises(service["submit"].SubmissionRejectedError) as ei:
        st.poll_status("s-3")
    assert (ei.value.status_code, ei.value.reason, ei.value.details, ei.value.body) == (404, "unknown", None, ["gone"])


def test_poll_client_error_closes(service, monkeypatch):
    mod = cf.submit_module(submit_error=TimeoutError("slow"))
    monkeypatch.setitem(sys.modules, "tarnwicket.submit", mod)
    with pytest.raises(TimeoutError):
        st.poll_status("s")
    assert mod.clients[0].closed == 1


def test_poll_status_goes_through_the_internal_name(monkeypatch):
    monkeypatch.setattr(st, "_poll_status_internal", lambda sid: ("polled", sid))
    assert st.poll_status("x") == ("polled", "x")


def test_onboarding_failing_on_another_module_is_raised(service, monkeypatch):
    class Finder:
        def find_spec(self, name, path=None, target=None):
            if name == "tarnwicket.agent_onboarding":
                raise ModuleNotFoundError("No module named 'dependency'", name="dependency")
            return None

    monkeypatch.delitem(sys.modules, "tarnwicket.agent_onboarding")
    monkeypatch.setattr(sys, "meta_path", [Finder(), *sys.meta_path])
    with pytest.raises(ModuleNotFoundError) as ei:
        st._resolve_signal_service_url()
    assert ei.value.name == "dependency"
