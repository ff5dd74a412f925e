import os
import subprocess
import sys

import pytest

from tarnwicket.local import cli
from tarnwicket.local.era import (LocalAuth, LocalEraConfig, ensure_seed_file,
                                  load_or_create_wallet_secret, make_seed, verify_seed)
from tarnwicket.local.evaluator import LocalEvaluator
from tarnwicket.local.summary import expression_text


class TestCommandLine:
    @pytest.mark.parametrize("argv, words", [
        (["search", "--jobs", "0"], "--jobs: must be at least 1"),
        (["search", "--jobs", "two"], "expected a whole number"),
        (["search", "--seconds", "-3"], "positive number of seconds"),
        (["search", "--seconds", "nan"], "positive number of seconds"),
        (["search", "--seed", "x"], "--seed"),
        (["search", "--seed", "-5"], "--seed: must be at least 0"),
        (["search", "--frobnicate"], "unrecognized arguments"),
        (["search", "--service-faults", "drop=2"], "--service-faults: fault drop: 2.0 is out of range"),
        # a URL no request can go to: refused before a signal is queued for it
        (["search", "--server-url", "localhost:8000"], "--server-url: server_url must be an http(s) URL"),
        (["search", "--server-url", "http://[::1"], "(Invalid IPv6 URL)"),
        (["search", "--server-url", "http://host:70000"], "(Port out of range"),
        (["search", "--server-url", "http://:8000"], "must name a host"),
        (["search", "--server-url", "http://127.0.0.1:1", "--service-faults", "drop=0.1"],
         "only the loopback service injects faults"),
        (["launch"], "invalid choice"),
        # an empty path would quietly be the current directory
        (["search", "--data-dir", ""], "--data-dir: expected a path"),
        (["results", "--data-dir", ""], "--data-dir: expected a path"),
        (["check", "--with-data-dir", ""], "--with-data-dir: expected a path"),
    ])
    def test_bad_options_give_one_line_and_exit_2(self, capsys, argv, words):
        assert cli.main(argv) == 2
        err = capsys.readouterr().err
        assert err.count("\n") == 1 and err.startswith("tarnwicket: error: ") and words in err

    @pytest.mark.parametrize("options, error, says", [
        ({"server_url": "nonsense"}, ValueError, "must be an http"),
        ({"seed": -1}, ValueError, "seed must be at least 0"),
        ({"seed": 1.5}, TypeError, "seed must be a whole number"),
        # each machine's loopback service would answer the others' submissions "unknown"
        ({"store": "postgresql://u@127.0.0.1:1/db"}, ValueError, "needs one signal service for all"),
    ])
    def test_bad_options_are_refused_before_anything_is_written(self, tmp_path, options, error, says):
        from tarnwicket.local.runtime import prepare_local_runtime

        with pytest.raises(error, match=says):
            prepare_local_runtime(str(tmp_path / "d"), **options)
        assert not (tmp_path / "d").exists()

    def test_an_empty_data_directory_is_not_the_current_one(self, tmp_path, monkeypatch):
        from tarnwicket.local.runtime import prepare_local_runtime

        monkeypatch.chdir(tmp_path)
        with pytest.raises(FileNotFoundError, match="names no data directory"):
            prepare_local_runtime("")
        assert os.listdir(tmp_path) == []

    def test_a_remembered_shared_store_needs_a_server_url(self, capsys, tmp_path):
        (tmp_path / "d").mkdir()
        (tmp_path / "d" / "store_url").write_text("postgresql://u@127.0.0.1:1/db\n")
        assert cli.main(["search", "--data-dir", str(tmp_path / "d")]) == 2
        err = capsys.readouterr().err
        assert err.count("\n") == 1 and "python -m tarnwicket.local_signal_service" in err
        assert sorted(os.listdir(tmp_path / "d")) == ["store_url"]

    def test_unusable_data_dir(self, capsys, tmp_path):
        blocker = tmp_path / "file"
        blocker.write_text("x")
        assert cli.main(["search", "--data-dir", str(blocker / "sub")]) == 2
        err = capsys.readouterr().err
        assert err.count("\n") == 1 and "is not usable" in err

    def test_module_entry_help(self):
        out = subprocess.run([sys.executable, "-m", "tarnwicket", "search", "--help"],
                             capture_output=True, text=True, timeout=60)
        assert out.returncode == 0
        for option in ("--jobs", "--seconds", "--data-dir", "--seed"):
            assert option in out.stdout


class TestEraSeed:
    def test_seed_file_round_trip(self, tmp_path):
        secret = load_or_create_wallet_secret(str(tmp_path))
        assert len(secret) == 32 and load_or_create_wallet_secret(str(tmp_path)) == secret
        path = ensure_seed_file(str(tmp_path), secret, 1)
        blob = open(path, "rb").read()
        assert len(blob) == 60
        verify_seed(blob, secret, 1)
        assert ensure_seed_file(str(tmp_path), secret, 1) == path and open(path, "rb").read() == blob

    @pytest.mark.parametrize("mutate, words", [
        (lambda blob, secret: (blob, bytes(32)), "invalid credentials"),
        (lambda blob, secret: (blob[:-1] + bytes([blob[-1] ^ 1]), secret), "invalid credentials"),
        (lambda blob, secret: (make_seed(secret, 2, bytes(20)), secret), "era mismatch"),
        (lambda blob, secret: (blob[:59], secret), "60 bytes"),
    ])
    def test_reconstruction_refuses_a_bad_seed(self, mutate, words):
        secret = bytes(range(32))
        blob, key = mutate(make_seed(secret, 1, bytes(20)), secret)
        ev = LocalEvaluator("/nonexistent")
        with pytest.raises(ValueError, match=words):
            ev.init_reconstruction(shuffle_blob=blob, wallet_secret=key, era_id=1)
        assert not ev.reconstructed

    def test_auth_and_era_config(self):
        auth = LocalAuth(bytes(32))
        assert auth.get_token().startswith("local-") and "\\x00" not in repr(auth)
        with pytest.raises(ValueError):
            LocalAuth(b"short")
        cfg = LocalEraConfig()
        for key in ("turnover_max", "delta_exposure_max", "max_weight_max", "correlation_max"):
            assert isinstance(cfg.thresholds[key], float)
        assert all(step in cfg.thresholds for step in cfg.transform_pipeline)
        assert cfg.signal_pools[0]["signal_pool_id"]


def test_expression_text():
    graph = {"type": "rotation", "node": "rank", "children": [
        {"type": "rotation", "node": "ts_mean", "children": [
            {"type": "feature", "node": "returns"}, {"type": "int", "node": 20}]},
        {"type": "bool", "node": True}]}
    assert expression_text(graph) == "rank(ts_mean(returns, 20), true)"


def test_prepare_local_runtime(tmp_path):
    tracking = pytest.importorskip("tarnwicket.search_tracking")
    if not hasattr(tracking, "SearchTracker"):
        pytest.skip("tracker not available in this build")
    import tarnwicket.search_templates as st
    from tarnwicket.local import prepare_local_runtime

    runtime = prepare_local_runtime(str(tmp_path / "d"), seed=1)
    assert st._library_runtime is runtime
    assert runtime.valid_universe_id == "universe_top50" and runtime.vocabulary_raw is None
    assert os.path.getsize(tmp_path / "d" / "shuffle_seed.enc") == 60
    with open(tmp_path / "d" / "shuffle_seed.enc", "rb") as fh:
        runtime.evaluator.init_reconstruction(shuffle_blob=fh.read(),
                                              wallet_secret=runtime.auth_proxy.wallet_secret,
                                              era_id=runtime.search_era_config.era_id)
    assert runtime.evaluator.reconstructed


def test_the_runtime_starts_its_own_service_unless_given_one(tmp_path, monkeypatch):
    import tarnwicket.agent_onboarding as onboarding
    from tarnwicket.local import prepare_local_runtime
    from tarnwicket.submit import SignalServiceClient

    monkeypatch.setenv("TARNWICKET_SERVICE_FAULTS", "503=1")
    runtime = prepare_local_runtime(str(tmp_path / "d"))
    try:
        assert onboarding._config["server_url"] == runtime.server_url == runtime.signal_service.url
        with SignalServiceClient(runtime.server_url, runtime.auth_proxy.get_token()) as client:
            assert client.get_signal_status("sub_x").status_code == 503  # the environment's faults
        runtime.signal_service.clear_faults()
        with SignalServiceClient(runtime.server_url, runtime.auth_proxy.get_token()) as client:
            assert client.get_signal_status("sub_x").status_code == 404  # the runtime's own token is good
    finally:
        runtime.close()
    assert os.path.exists(tmp_path / "d" / "signal_service.db")
    elsewhere = prepare_local_runtime(str(tmp_path / "d"), server_url="http://127.0.0.1:9")
    assert elsewhere.signal_service is None and onboarding._config["server_url"] == "http://127.0.0.1:9"

    (tmp_path / "d" / "signal_service.db").write_bytes(b"not a database" * 100)
    with pytest.raises(ValueError, match="signal_service.db: cannot be used as the signal service's store"):
        prepare_local_runtime(str(tmp_path / "d"))


def test_an_unknown_store_is_refused_before_anything_is_written(tmp_path, capsys):
    assert cli.main(["search", "--data-dir", str(tmp_path / "d"), "--store", "mysql://db"]) == cli.EXIT_USAGE
    assert "unsupported store 'mysql://db'" in capsys.readouterr().err
    assert not (tmp_path / "d").exists()
