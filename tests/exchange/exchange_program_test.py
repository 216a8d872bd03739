"""Runs the example that sends packed chains between processes as a user does, with processes that are
killed, senders that are broken and servers that stop.

MEM_EXCHANGE        the program
MEM_EXCHANGE_REDIS  1 where it was built with Redis
"""

import contextlib
import os
import re
import shutil
import signal
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

PROGRAM = Path(os.environ["MEM_EXCHANGE"])
SAMPLE = PROGRAM.parent / "sample-status"
HAS_REDIS = (os.environ.get("MEM_EXCHANGE_REDIS") == "1"
             and shutil.which("redis-server") is not None)
SECONDS = 50  # for any run

if not PROGRAM.exists():
    raise SystemExit("exchange is not built. Build it:\n"
                     "  cmake --build <build folder> --target exchange")

needs_redis = unittest.skipUnless(HAS_REDIS, "no hiredis or no redis-server")


class Run:
    """A finished run of the program."""

    def __init__(self, code: int, out: str, err: str):
        self.code = code
        self.out = out
        self.err = err

    def number(self, name: str) -> int:
        found = re.search(rf"^  {name} +([0-9,]+)", self.out, re.MULTILINE)
        if found is None:
            raise AssertionError(f"no line {name}:\n{self}")
        return int(found[1].replace(",", ""))

    def __str__(self) -> str:
        return f"exit code {self.code}\n{self.out}\n{self.err}"


def start(*arguments: str, **environment: str) -> subprocess.Popen:
    return subprocess.Popen([PROGRAM, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            text=True, env=os.environ | environment)


def finish(process: subprocess.Popen, said: str = "") -> Run:
    try:
        out, err = process.communicate(timeout=SECONDS)
    except subprocess.TimeoutExpired:
        process.kill()
        raise
    return Run(process.returncode, out, said + err)


def run(*arguments: str, **environment: str) -> Run:
    return finish(start(*arguments, **environment))


def folders() -> set[Path]:
    """Of private servers."""
    return set(PROGRAM.parent.glob("exchange.??????"))


class ExchangeTest(unittest.TestCase):
    def setUp(self):
        self.folders = folders()

    def expect_good(self, done: Run, jobs: int, again: int | None = 0) -> None:
        """Nothing is lost, nothing came in twice, and all processes have returned their storage."""
        self.assertEqual(done.code, 0, done)
        self.assertEqual(done.number("jobs"), jobs, done)
        self.assertEqual(done.number("merged"), jobs, done)
        self.assertEqual(done.number("packages"), 26, done)
        self.assertIn("to packages of any job; equal to the source\n", done.out)
        accounts = re.findall(r" allocated, ([0-9,]+) bytes in ([0-9,]+) areas not returned", done.out)
        self.assertGreaterEqual(len(accounts), 2, done)
        self.assertEqual(set(accounts), {("0", "0")}, done)
        if again is not None:
            self.assertEqual(done.number("again"), again, done)
        self.assertEqual(folders(), self.folders)


def over_both(test):
    """Runs a test with pipes and with a private Redis server."""

    def both(self):
        for options in [], ["--redis"]:
            if options and not HAS_REDIS:
                continue
            with self.subTest(options=options):
                test(self, options)

    return both


class Exchanges(ExchangeTest):
    @over_both
    def test_merges_what_workers_have_packed(self, options):
        done = run(str(SAMPLE), "--packages", "4", "--workers", "2", *options)
        self.expect_good(done, 7)
        for name in "came twice", "set aside", "claimed":
            self.assertEqual(done.number(name), 0, done)
        self.assertRegex(done.err, r"^exchange: processes: worker 1 is \d+, worker 2 is \d+, "
                                   r"collector is \d+\n")
        self.assertNotIn("Set aside", done.out)

    @over_both
    def test_packs_the_catalogue_as_often_as_wanted(self, options):
        done = run(str(SAMPLE), "--packages", "26", "--times", "50", "--workers", "3", *options)
        self.expect_good(done, 50)


class KilledWorkers(ExchangeTest):
    @over_both
    def test_a_job_of_a_killed_worker_is_claimed(self, options):
        done = run(str(SAMPLE), "--packages", "1", "--times", "4", "--trouble", "killed",
                   "--claim-after", "500", *options)
        self.expect_good(done, 104)
        self.assertEqual(done.number("claimed"), 1, done)
        self.assertRegex(done.out, r"worker 1 \(process \d+\) was killed by signal 9\n")

    @over_both
    def test_a_result_of_a_killed_worker_that_comes_again_is_recognised(self, options):
        done = run(str(SAMPLE), "--packages", "1", "--times", "4", "--trouble", "killed-late",
                   "--claim-after", "500", *options)
        self.expect_good(done, 104)
        self.assertEqual(done.number("claimed"), 1, done)
        self.assertEqual(done.number("came twice"), 1, done)

    @over_both
    def test_a_worker_may_be_killed_at_any_time(self, options):
        for delay in 0.02, 0.2:
            process = start(str(SAMPLE), "--packages", "1", "--times", "50", "--claim-after", "500",
                            "--workers", "2", *options)
            said = process.stderr.readline()
            worker = int(re.search(r"worker 2 is (\d+)", said)[1])
            time.sleep(delay)
            with contextlib.suppress(ProcessLookupError):  # it is done, on a quick machine
                os.kill(worker, signal.SIGKILL)
            done = finish(process, said)
            self.expect_good(done, 1300)
            self.assertIn(f"worker 2 (process {worker})", done.out)

    @over_both
    def test_without_workers_the_run_ends(self, options):
        done = run(str(SAMPLE), "--packages", "1", "--workers", "1", "--trouble", "killed", *options)
        self.assertEqual(done.code, 1, done)
        self.assertIn("exchange: no worker is left: worker 1 (process ", done.err)


class DoubledAndBroken(ExchangeTest):
    @over_both
    def test_doubled_results_are_recognised(self, options):
        done = run(str(SAMPLE), "--packages", "1", "--times", "4", "--trouble", "doubled",
                   "--workers", "1", *options)
        self.expect_good(done, 104)
        self.assertEqual(done.number("came twice"), 104, done)

    @over_both
    def test_broken_chains_are_set_aside_and_their_jobs_done_again(self, options):
        done = run(str(SAMPLE), "--packages", "2", "--trouble", "broken", "--workers", "1", *options)
        self.expect_good(done, 13, again=None)
        self.assertEqual(done.number("set aside"), 13, done)
        self.assertEqual(done.number("again"), 13, done)
        self.assertIn("results, job 0: code 0, PackedChain::load failed: wrong length of block 0\n",
                      done.out)
        self.assertRegex(done.out, r"results, job 1: code 40\d\d, MEM_Unpack failed: 40\d\d MEMERR_")
        self.assertIn("results, job 2: code 0, PackedChain::unpack failed: "
                      "the chain describes other structures\n", done.out)
        self.assertIn("  and 8 more\n", done.out)


@needs_redis
class Servers(ExchangeTest):
    def test_a_server_that_is_killed_and_comes_back_is_survived(self):
        done = run(str(SAMPLE), "--redis", "--packages", "1", "--times", "40", "--trouble", "restart")
        self.expect_good(done, 1040, again=None)

    def test_an_interrupted_run_leaves_nothing(self):
        process = start(str(SAMPLE), "--redis", "--packages", "1", "--times", "2000")
        said = process.stderr.readline()
        worker = int(re.search(r"worker 1 is (\d+)", said)[1])
        (own,) = folders() - self.folders
        self.assertEqual(own.stat().st_mode & 0o777, 0o700)
        process.send_signal(signal.SIGTERM)
        done = finish(process, said)
        self.assertEqual(done.code, 1, done)
        self.assertIn("exchange: interrupted\n", done.err)
        self.assertEqual(folders(), self.folders)
        self.assertFalse(Path(f"/proc/{worker}").exists())

    def test_a_missing_server_program_is_named(self):
        done = run(str(SAMPLE), "--redis", PATH="/nowhere")
        self.assertEqual(done.code, 2, done)
        self.assertIn("exchange: --redis needs redis-server. Install it", done.err)
        self.assertEqual(folders(), self.folders)

    def test_a_server_that_is_not_there_is_named(self):
        done = run(str(SAMPLE), "--redis", "unix:///nowhere/redis.sock")
        self.assertEqual(done.code, 1, done)
        self.assertIn("exchange: Redis at unix:///nowhere/redis.sock: No such file", done.err)


@needs_redis
class ServerOfOthers(ExchangeTest):
    """Runs over an existing server, with a password."""

    PASSWORD = "word of / passage"

    def setUp(self):
        super().setUp()
        self.folder = tempfile.TemporaryDirectory()
        self.socket = self.folder.name + "/s"
        self.url = f"unix://{self.socket}"
        self.server = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", self.socket, "--save", "",
             "--requirepass", self.PASSWORD],
            stdout=subprocess.DEVNULL, cwd=self.folder.name)
        self.addCleanup(self.folder.cleanup)
        self.addCleanup(self.stop)
        deadline = time.monotonic() + SECONDS
        while not Path(self.socket).exists():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)

    def stop(self):
        self.server.kill()
        self.server.wait()

    def ask(self, *words: str) -> str:
        return subprocess.run(["redis-cli", "-s", self.socket, *words], check=True, text=True,
                              env=os.environ | {"REDISCLI_AUTH": self.PASSWORD},
                              stdout=subprocess.PIPE, timeout=SECONDS).stdout

    def test_the_password_is_needed(self):
        done = run(str(SAMPLE), "--redis", self.url)
        self.assertEqual(done.code, 2, done)
        self.assertIn("NOAUTH", done.err)
        done = run(str(SAMPLE), "--redis", f"unix://:wrong@{self.socket}")
        self.assertEqual(done.code, 2, done)
        self.assertIn("WRONGPASS", done.err)
        self.assertNotIn("wrong@", done.err)

    def test_the_password_is_in_the_url_or_in_the_environment(self):
        done = run(str(SAMPLE), "--packages", "4", "--redis",
                   f"unix://:word%20of%20%2f%20passage@{self.socket}")
        self.expect_good(done, 7)
        self.assertIn(f"through Redis at unix://{self.socket}, streams exchange-", done.out)
        done = run(str(SAMPLE), "--packages", "4", "--redis", self.url, REDISCLI_AUTH=self.PASSWORD)
        self.expect_good(done, 7)
        self.assertRegex(self.ask("KEYS", "*"), r"^(exchange-[0-9-]+:ended\n)*\s*$")

    def test_workers_elsewhere_and_strangers_who_send_rubbish(self):
        process = start(str(SAMPLE), "--packages", "4", "--workers", "0", "--name", "run", "--redis",
                        self.url, REDISCLI_AUTH=self.PASSWORD)
        said = process.stderr.readline()
        self.ask("XADD", "run:results", "*", "job", "3", "chain", "rubbish")
        self.ask("XADD", "run:results", "*", "nothing", "known")
        self.ask("XADD", "run:jobs", "*", "job", "5", "text", "no stanza")
        workers = [start("--worker", "--name", "run", "--redis", self.url,
                         REDISCLI_AUTH=self.PASSWORD) for _ in range(2)]
        done = finish(process, said)
        self.expect_good(done, 7, again=1)
        self.assertEqual(done.number("set aside"), 3, done)
        for worker in workers:
            ended = finish(worker)
            self.assertEqual(ended.code, 0, ended)
            self.assertRegex(ended.out, r"^worker \(process \d+\): \d+ jobs, 0 bytes in 0 areas")
        dead = self.ask("XRANGE", "run:dead", "-", "+")
        for text in ("PackedChain::load failed: wrong length of block 0",
                     "a result without the number of a job", "the job, line 1: is not a field",
                     "rubbish", "known", "no stanza"):
            self.assertIn(text, dead)
        self.assertEqual(set(self.ask("KEYS", "*").split()), {"run:dead", "run:ended"})


class Page(ExchangeTest):
    """docs/between-processes.md."""

    PAGE = (Path(__file__).resolve().parents[2] / "docs" / "between-processes.md").read_text("utf-8")

    def test_its_commands_work(self):
        commands = re.findall(r"^\./run\.sh --exchange +([^#\n]*)", self.PAGE, re.MULTILINE)
        self.assertGreaterEqual(len(commands), 2)
        for command in commands:
            if "--redis" in command and not HAS_REDIS:
                continue
            done = run(*command.split())
            self.assertEqual(done.code, 0, done)
            self.assertIn("equal to the source\n", done.out)

    def test_it_has_all_options_and_troubles_and_its_output_has_the_program_s_lines(self):
        usage = run("--help").out
        for option in re.findall(r"^  (--[a-z-]+)", usage, re.MULTILINE):
            if option != "--help":
                self.assertIn(f"`{option}", self.PAGE.replace("/exchange --worker ", "`--worker "))
        for trouble in "killed", "killed-late", "doubled", "broken", "restart":
            self.assertIn(f"--trouble {trouble}`", self.PAGE)
            self.assertIn(trouble, usage)
        done = run(str(SAMPLE))
        shown = re.search(r"^Catalogue .*?^```", self.PAGE, re.MULTILINE | re.DOTALL)[0]
        words = [re.sub(r"[\d,]+", "N", line).split() for line in done.out.splitlines()]
        for line in shown.splitlines()[1:-1]:
            self.assertIn(re.sub(r"[\d,]+", "N", line).split(), words)


class Arguments(unittest.TestCase):
    def test_help(self):
        done = run("--help")
        self.assertEqual(done.code, 0)
        self.assertIn("\nUsage: exchange ", done.out)

    def test_what_cannot_be_is_refused(self):
        for arguments, text in [
                (["absent"], "cannot read absent"),
                ([str(SAMPLE), "--workers", "-1"], "--workers: Value -1 not in range"),
                ([str(SAMPLE), "--packages", "0"], "--packages: Value 0 not in range"),
                ([str(SAMPLE), "--times", "many"], "--times: Value many not in range"),
                ([str(SAMPLE), "--times", "1000000"], "--times 1000000: the jobs of "),
                ([str(SAMPLE), "--trouble", "rain"], "--trouble: "),
                ([str(SAMPLE), "--trouble", "restart"], "needs a private server"),
                (["--worker"], "--worker needs the coordinator's --redis URL and --name NAME"),
                ([str(SAMPLE), "--redis", "http://host"], "invalid URL for --redis: use redis://"),
                (["--unknown"], "not expected: --unknown")]:
            with self.subTest(arguments=arguments):
                if "--redis" in arguments and not HAS_REDIS:
                    continue
                done = run(*arguments)
                self.assertEqual(done.code, 2, done)
                self.assertEqual(done.out, "")
                self.assertRegex(done.err, r"^exchange: [^\n]+\n$")
                self.assertIn(text, done.err)


if __name__ == "__main__":
    unittest.main()
