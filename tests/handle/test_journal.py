"""The receipt journal on disk, beside a real SQLite store."""
import json
import os
import types

import pytest

import tarnwicket.search_templates as st

RECEIPT = types.SimpleNamespace(submission_id="sub-1")


def table(store, name, columns):
    return store._conn.execute(f"SELECT {columns} FROM {name} ORDER BY 1").fetchall()


def journal_files(h):
    path = h._receipt_journal_path()
    return sorted(os.listdir(path)) if os.path.isdir(path) else []


def test_an_entry_is_written_whole_and_removed_with_its_directory(h, claimed):
    h._append_receipt_journal(claimed, RECEIPT)
    name = "queue__%d__sub-1.json" % claimed["_queue_id"]
    assert journal_files(h) == [name]
    with open(os.path.join(h._receipt_journal_path(), name), encoding="utf-8") as f:
        text = f.read()
    entry = json.loads(text)
    assert text.endswith("}\n") and list(entry) == sorted(entry)
    assert (entry["source_kind"], entry["source_id"], entry["submission_id"]) == ("queue", claimed["_queue_id"], "sub-1")
    assert entry["payload"]["_source_payload_json"] == claimed["_source_payload_json"]
    key = h._receipt_journal_key(entry)
    assert key == h._receipt_journal_key_for_payload(claimed, "sub-1") == ("queue", str(claimed["_queue_id"]), "sub-1")
    h._rewrite_receipt_journal_without(key)
    assert not os.path.exists(h._receipt_journal_path())
    h._rewrite_receipt_journal_without(key)  # already gone: nothing to say
    assert h.failures == []


def test_names_are_sanitised_and_a_receipt_without_a_source_has_no_entry(h):
    path = h._receipt_journal_file_path(("retry", "", "a/b c\u00e9\u0663"))
    assert os.path.basename(path) == "retry_____a_b_c\u00e9\u0663.json"
    h._append_receipt_journal_until_durable({"eval_id": "e1"}, RECEIPT)
    assert journal_files(h) == []


def test_a_failed_write_is_reported_and_the_durable_write_tries_until_it_holds(h, claimed, monkeypatch):
    real_fsync, failures = os.fsync, [OSError("disk"), OSError("disk")]

    def flaky_fsync(fd):
        if failures:
            raise failures.pop()
        real_fsync(fd)

    monkeypatch.setattr(os, "fsync", flaky_fsync)
    monkeypatch.setattr(st, "_submission_backoff_sleep", lambda seconds: None)
    h._append_receipt_journal(claimed, RECEIPT)
    assert h.failures == [("submission", "receipt_journal_write", "disk", False)]
    assert [n for n in journal_files(h) if n.endswith(".json")] == []
    with pytest.raises(OSError):
        h._append_receipt_journal(claimed, RECEIPT, required=True)
    h.failures.clear()
    failures[:] = [OSError("disk"), OSError("disk")]
    h._append_receipt_journal_until_durable(claimed, RECEIPT)
    assert [f[1:] for f in h.failures] == [("receipt_journal_write", "disk", True)] * 2
    assert "queue__%d__sub-1.json" % claimed["_queue_id"] in journal_files(h)


def test_the_reader_skips_what_is_not_an_entry(h, claimed):
    h._append_receipt_journal(claimed, RECEIPT)
    folder = h._receipt_journal_path()
    for name, text in (("a.json", "[1, 2]"), ("b.json", "{broken"), ("c.json.x.tmp", "{}")):
        with open(os.path.join(folder, name), "w") as f:
            f.write(text)
    (entry,) = h._read_receipt_journal()
    assert entry["submission_id"] == "sub-1"
    assert [f[1:] for f in h.failures] == [("receipt_journal_decode", "Expecting property name enclosed in double "
                                            "quotes: line 1 column 2 (char 1)", False)]


def test_replay_records_what_a_crash_left_and_only_once(h, store, claimed):
    h._append_receipt_journal(claimed, RECEIPT)  # the process died here, before the store write
    assert h._replay_receipt_journal() is True
    assert table(store, "submission_status", "submission_id") == [("sub-1",)]
    assert table(store, "submission_queue", "queue_id") == [] and journal_files(h) == []
    assert list(h._pending_submissions) == ["sub-1"] and h._total_found == 1

    h._append_receipt_journal(claimed, RECEIPT)  # died after the store write, before the removal
    assert h._replay_receipt_journal() is True
    assert table(store, "submission_status", "submission_id") == [("sub-1",)] and h._total_found == 1
    assert journal_files(h) == []


def test_replay_drops_stale_and_malformed_entries_and_stops_at_a_store_failure(h, store, claimed):
    store._conn.execute("UPDATE submission_queue SET created_at = created_at + 1")
    h._append_receipt_journal(claimed, RECEIPT)
    assert h._replay_receipt_journal() is True
    assert h._errors[-1].endswith("submission receipt journal source row missing or mismatched; dropping stale entry")
    assert journal_files(h) == [] and len(table(store, "submission_queue", "queue_id")) == 1

    store._conn.execute("UPDATE submission_queue SET created_at = ?", (claimed["_source_created_at"],))
    h._append_receipt_journal(claimed, RECEIPT)
    h._append_receipt_journal(claimed, types.SimpleNamespace(submission_id="sub-2"))
    store._conn.execute("DELETE FROM signal_evaluations")
    assert h._replay_receipt_journal() is False
    assert h.failures[-1][1:] == ("receipt_journal_replay", "eval_id=%s not found in signal_evaluations"
                                  % claimed["eval_id"], True)
    assert len(journal_files(h)) == 2 and table(store, "submission_status", "status_id") == []

    for name in journal_files(h):
        os.remove(os.path.join(h._receipt_journal_path(), name))
    # an entry of an unknown kind, and one without a submission id, are removed without a word
    entry = h._receipt_journal_entry(claimed, RECEIPT)
    for kind, sub in (("elsewhere", "sub-1"), ("queue", ""), ("queue", None)):
        with open(h._receipt_journal_file_path((kind, str(claimed["_queue_id"]), str(sub))), "w") as f:
            json.dump({k: v for k, v in dict(entry, source_kind=kind, submission_id=sub).items() if v is not None}, f)
    failures = len(h.failures)
    assert h._replay_receipt_journal() is True and journal_files(h) == []
    assert len(h.failures) == failures
