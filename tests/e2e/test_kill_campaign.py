"""Random kills of searches on one store, with a faulty network; the long
version (1,000 kills) runs with `-m soak`."""
import pytest

from fakes.searches import ASAN
from tarnwicket.local.kill_campaign import Campaign, run

FAULTS = "drop=0.03,5xx=0.03,401=0.05,403=0.05,lost=0.03,slow=0.05,slow_seconds=0.5,ban_seconds=1,seed=3"


def campaign(tmp_path, kills, **kw):
    outcome = run(Campaign(str(tmp_path / "campaign"), kills=kills, **kw))
    assert outcome.ok, "\n".join(outcome.lines())
    return outcome


def test_twenty_kills_of_two_processes_lose_nothing_and_send_nothing_twice(tmp_path):
    outcome = campaign(tmp_path, 4 if ASAN else 20, processes=2, jobs=1, lease=2.0, faults=FAULTS,
                       max_seconds=4.0, final_seconds=10.0)
    r = outcome.report
    assert outcome.kills == (4 if ASAN else 20) and outcome.faults
    assert r.service_held >= 5 and r.duplicates == 0 and r.lost_receipts == 0
    assert r.accepted + r.rejected >= 1  # the last search polled verdicts


@pytest.mark.soak
def test_a_thousand_kills(tmp_path):
    campaign(tmp_path, 1000, processes=3, jobs=2, lease=3.0, faults=FAULTS, final_seconds=30.0)


@pytest.mark.faults
@pytest.mark.parametrize("kills", [pytest.param(3 if ASAN else 9, id="ci"),
                                   pytest.param(300, id="long", marks=pytest.mark.soak)])
def test_three_machines_on_one_postgres_store_send_each_signal_once(tmp_path, postgres_server, kills):
    outcome = campaign(tmp_path, kills, processes=3, jobs=1, lease=2.0, faults=FAULTS, max_seconds=4.0,
                       final_seconds=10.0, store=postgres_server.new_schema_url("machines"))
    r = outcome.report
    assert outcome.kills == kills and r.service_held >= 3
    assert r.duplicates == 0 and r.service_repeats <= outcome.kills and r.lost_receipts == 0


@pytest.mark.parametrize("option", [["--processes", "0"], ["--kills", "-1"], ["--faults", "drop=x"],
                                    ["--store", "mysql://db"], ["--lease", "0"], ["--workdir", ""]])
def test_the_campaign_command_refuses_bad_options_before_it_starts(tmp_path, capsys, option):
    from tarnwicket.local.kill_campaign import main

    with pytest.raises(SystemExit) as ended:
        main(["--workdir", str(tmp_path / "w"), *option])
    assert ended.value.code == 2 and f"argument {option[0]}" in capsys.readouterr().err
    assert not (tmp_path / "w").exists()
