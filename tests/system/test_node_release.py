"""Nodes that take signed releases and nothing else: pushed by a lead, checked, activated, taken back."""

import os
import signal

import lab
from release_node import ReleaseNode
from support import ROOT, errno_status, failures, names_below, summary

SIX = {"etc/settings": b"colour = blue\n", "big": os.urandom(300_000), "old": b"x"}
SEVEN = {**SIX, "etc/settings": b"colour = green\n", "new/file": b"y"}
del SEVEN["old"]


class Releases(ReleaseNode):
    def test_a_release_is_installed_and_the_next_one_brings_what_is_new(self):
        self.start_both()
        self.install(6, SIX)
        self.assertEqual(self.check_tree(), 6)
        self.assertEqual(os.readlink(os.path.join(self.place, "current")),
                         f".pkgdist/releases/6-{self.release['manifest'][:16]}")
        self.build(7, SEVEN)
        missing = self.begin()
        self.assertEqual((missing["missing"], missing["candidate"], missing["current"]["version"]),
                         (2, self.release, 6))
        self.fetch()
        self.assertEqual(self.check_tree(), 6, "nothing is switched before it is ordered")
        self.activate()
        self.assertEqual(self.check_tree(), 7)
        states = [s["state"] for s in self.states()]
        for state in ("checking", "fetching", "ready", "activating", "confirmed"):
            self.assertIn(state, states)
        self.assertEqual(os.listdir(os.path.join(self.place, ".pkgdist", "staging")), [])

    def test_status_tells_that_the_location_takes_releases(self):
        self.start_both()
        status = self.node.run(self.node_command("status"), capture_output=True, text=True, timeout=20)
        self.assertEqual(lab.parse_events(status.stdout)[0]["locations"][0]["releases"], "base")

    def test_orders_for_other_releases_or_locations_change_nothing(self):
        self.start_both()
        self.build(6, SIX)
        self.begin()
        for change in ({"name": "other"}, {"location": 3}):
            self.order("check", {**self.release, **change})
        self.assertEqual(self.ask("status")["state"], "fetching")
        self.fetch()

    def test_what_was_not_signed_here_is_refused(self):
        self.start_both()
        self.build(6, SIX)
        manifest = os.path.join(self.content, ".pkgdist", "manifest")
        with open(manifest, "ab") as file:
            file.write(b"\n")
        refused = self.begin("refused")
        self.assertIn("signature does not belong", refused["problem"])
        self.secret = os.path.join(ROOT, "other.key")
        self.new_key(self.secret, "../other")
        self.make(6)
        self.assertIn("not trusted here", self.begin("refused")["problem"])
        self.assertNotIn("current", os.listdir(self.place))

    def test_what_has_expired_is_refused_where_that_is_asked_for(self):
        self.start_both("--enforce-expiry")
        self.build(6, SIX, "--expires", "2999-01-01T00:00:00Z")
        self.begin()
        self.fetch()
        self.activate()
        self.build(7, SEVEN, "--expires", "2020-01-02T00:00:00Z")
        self.assertEqual(self.begin("refused")["problem"], "the release expired on 2020-01-02T00:00:00Z")
        self.assertEqual(self.check_tree(), 6)

    def test_a_manifest_of_another_release_than_the_ordered_one_is_refused(self):
        self.start_both()
        self.build(6, SIX)
        self.push_description()
        ordered = {"version": 7, "manifest": "0" * 64}
        refused = self.answer(self.order("check", ordered), "refused")
        self.assertIn("is another one, of version 6", refused["problem"])
        self.assertIn("is not ready here", self.answer(self.order("activate"), "refused")["problem"])


class Gate(ReleaseNode):
    def test_nothing_but_the_files_of_the_release_is_taken(self):
        self.start_both()
        self.build(6, SIX)
        # Before its manifest is checked, no file of the tree is taken.
        early = summary(self.push(paths=["etc"], expect=1))
        self.assertEqual(failures(early)[self.node.address], {"etc/settings": errno_status(11)})
        self.begin()
        self.write("stranger", b"s")
        self.write("etc/settings.d", b"s")
        os.chmod(os.path.join(self.content, "old"), 0o4755)
        self.write("big", b"shorter")
        refused = failures(summary(self.push(paths=["."], expect=1)))[self.node.address]
        self.assertEqual(refused, {name: errno_status(1) for name in ("stranger", "etc/settings.d", "old", "big")})
        # The file that was good is in staging; of the others nothing was written.
        incoming = os.path.join(self.place, ".pkgdist", "incoming")
        lab.wait_until(lambda: not [n for n in names_below(incoming) if not n.startswith(".pkgdist/")], 10,
                       "incoming to be empty")
        self.assertEqual(self.answer(self.order("fetched"), "fetching")["missing"], 2)

    def test_deletions_are_refused(self):
        self.start_both()
        self.install(6, SIX)
        self.push_description()
        incoming = os.path.join(self.place, ".pkgdist", "incoming", ".pkgdist")
        self.assertIn("manifest", os.listdir(incoming))
        self.lead.request("delete", "--nodes", self.node.address, "--to", "1", ".pkgdist/manifest", "etc/settings")
        self.lead.request("delete", "--nodes", self.node.address, "--recursive", "--to", "1", ".pkgdist")
        self.assertIn("manifest", os.listdir(incoming))
        self.assertEqual(self.check_tree(), 6)

    def test_a_forged_file_is_deleted_asked_for_again_and_given_up_after_three_times(self):
        self.start_both()
        self.build(6, SIX)
        self.begin()
        self.forge("etc/settings")
        for _ in range(2):
            self.push(paths=["."])
            place = self.order("fetched")
            # States about the files themselves may still be said before the one about the order.
            lab.wait_until(lambda place=place: self.states()[place:] and self.states()[-1]["missing"] == 1, 20,
                           "one file to be missing")
            fetching = self.states()[-1]
            self.assertEqual(fetching["state"], "fetching")
            self.assertIn("'etc/settings' has another content than signed", fetching["problem"])
            self.assertNotIn("etc/settings", names_below(os.path.join(self.place, ".pkgdist")))
        refused = self.fetch("refused")
        self.assertEqual(refused["problem"], "'etc/settings' has another content than signed, 3 times")
        # A push of the right content begins anew, with what is there.
        self.forge("etc/settings")
        self.assertEqual(self.begin()["missing"], 1)
        self.fetch()
        self.activate()
        self.assertEqual(self.check_tree(), 6)

    def forge(self, name):
        """The same size, mode and time; doing it twice undoes it."""
        path = os.path.join(self.content, name)
        times = os.stat(path)
        with open(path, "r+b") as file:
            first = file.read(1)
            file.seek(0)
            file.write(bytes([first[0] ^ 1]))
        os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))


class Activation(ReleaseNode):
    def test_a_health_command_that_fails_takes_the_release_back_for_good(self):
        seen = os.path.join(ROOT, "seen")
        self.start_both("--health", f'echo "$PKGDIST_RELEASE_NAME $PKGDIST_RELEASE_VERSION" > {seen}; '
                                    'grep -q blue "$PKGDIST_RELEASE_DIRECTORY/etc/settings" || exit 7')
        self.install(6, SIX)
        with open(seen, encoding="utf-8") as file:
            self.assertEqual(file.read(), "base 6\n")
        self.build(7, SEVEN)
        self.begin()
        self.fetch()
        failed = self.activate("failed")
        self.assertIn("ended with exit status 7", failed["problem"])
        self.assertEqual((self.check_tree(), failed["current"]["version"]), (6, 6))
        self.assertIn("was activated before and failed", self.begin("refused")["problem"])

    def test_a_health_command_that_takes_too_long_is_ended(self):
        self.start_both("--health", "sleep 1000", "--health-timeout", "0.2")
        self.build(6, SIX)
        self.begin()
        self.fetch()
        self.assertIn("took longer than 0.2 s (--health-timeout)", self.activate("failed")["problem"])
        self.assertNotIn("current", os.listdir(self.place))

    def test_the_owner_of_the_host_activates_verifies_goes_back_and_allows_an_older_version(self):
        self.start_both()
        self.assertIn("is not ready", self.ask("activate", expect=1)["problem"])
        self.assertIn("no release is installed", self.ask("verify", expect=1)["problem"])
        self.install(6, SIX)
        self.build(7, SEVEN)
        self.begin()
        self.fetch()
        self.assertEqual(self.ask("status")["state"], "ready")
        self.assertEqual(self.ask("activate")["current"]["version"], 7)
        self.assertEqual(self.ask("verify")["drifted"], 0)
        with open(os.path.join(self.place, "current", "etc", "settings"), "r+b") as file:
            file.write(b"C")
        drifted = self.ask("verify", expect=1)
        self.assertEqual((drifted["drifted"], drifted["drift"]), (1, ["etc/settings"]))
        self.assertEqual(self.ask("rollback")["current"]["version"], 6)
        self.assertEqual(self.check_tree(), 6)
        self.build(5, {"five": b"5"})
        self.assertIn("below the installed 6", self.begin("refused")["problem"])
        self.ask("downgrade", "5")
        self.begin()
        self.fetch()
        self.activate()
        self.assertEqual(self.check_tree(), 5)

    def test_the_way_back_to_a_tree_that_somebody_changed_takes_force(self):
        self.start_both()
        self.install(6, SIX)
        self.install(7, SEVEN)
        with open(os.path.join(self.place, "previous", "etc", "settings"), "r+b") as file:
            file.write(b"C")
        different = "the previous release, version 6, is not as it was signed: content differs: etc/settings"
        refused = self.ask("rollback", expect=1)
        self.assertEqual((refused["state"], refused["current"]["version"], refused["problem"]),
                         ("refused", 7, different + "; 'release rollback --force' goes back to it as it is"))
        self.assertEqual(self.check_tree(), 7)
        forced = self.ask("rollback", "--force")
        self.assertEqual((forced["state"], forced["current"]["version"], forced["problem"]),
                         ("confirmed", 6, different))
        self.assertEqual(self.ask("verify", expect=1)["drift"], ["etc/settings"])

    def test_people_are_told_in_words(self):
        self.start_both()
        self.install(6, SIX)
        told = self.node.run([self.programs.node, "--interface", self.node.address, "release", "status"],
                             capture_output=True, text=True, timeout=20)
        self.assertEqual(told.stdout.splitlines(),
                         ["releases of 'base' in location 1: confirmed",
                          f"current: version 6 ({self.release['manifest'][:16]})",
                          f"signed with: {self.key_of('one')}"])

    def test_hard_links_save_room(self):
        self.start_both("--hardlink")
        self.install(6, SIX)
        self.install(7, SEVEN)
        paths = [os.path.join(self.place, link, "big") for link in ("current", "previous")]
        self.assertEqual(os.stat(paths[0]).st_ino, os.stat(paths[1]).st_ino)
        self.assertEqual(self.check_tree(), 7)


class Restart(ReleaseNode):
    def test_a_node_that_was_killed_goes_on_with_what_is_missing(self):
        self.start_both()
        self.build(6, SIX)
        self.begin()
        self.push(paths=["big"])
        lab.wait_until(lambda: self.ask("status")["missing"] == 2, 10, "the file to be checked")
        leftover = os.path.join(self.place, ".pkgdist", "incoming", "old.tmp")
        with open(leftover, "wb") as file:
            file.write(b"half of it")
        self.restart()
        resumed = self.wait_for_state("fetching")
        self.assertEqual((resumed["missing"], resumed["candidate"]), (2, self.release))
        self.assertFalse(os.path.exists(leftover))
        staged = os.path.join(self.place, ".pkgdist", "staging", os.listdir(os.path.join(
            self.place, ".pkgdist", "staging"))[0], "big")
        inode = os.stat(staged).st_ino
        self.fetch()
        # A release that is ready stays so.
        self.restart()
        self.wait_for_state("ready")
        self.activate()
        self.assertEqual(self.check_tree(), 6)
        self.assertEqual(os.stat(os.path.join(self.place, "current", "big")).st_ino, inode, "it was not sent again")
        self.restart()
        self.assertEqual(self.wait_for_state("idle")["current"], self.release)

    def test_a_trial_that_ends_with_the_process_has_failed(self):
        self.start_both()
        self.install(6, SIX)
        health = os.path.join(ROOT, "health")
        for end in (self.kill_node, self.stop_node):
            self.restart("--health", f"echo $$ >{health}; exec sleep 1000 >{health}.out 2>&1")
            self.build(self.release["version"] + 1, {**SIX, "etc/settings": os.urandom(10)})
            self.begin()
            self.fetch()
            self.order("activate")
            lab.wait_until(lambda: self.check_tree() == self.release["version"], 10, "the trial")
            end()
            if end == self.kill_node:
                with open(health, encoding="utf-8") as file:
                    os.kill(int(file.read()), signal.SIGKILL)
            if end == self.stop_node:
                self.assertEqual(self.check_tree(), 6, "the node goes back before it ends")
            self.start()
            lab.wait_until(lambda: self.check_tree() == 6, 10, "the release before the trial")
            self.wait_for_lead()
            self.assertIn("was activated before and failed", self.begin("refused")["problem"])

    def stop_node(self):
        process = self.node_processes[self.node.name]
        process.terminate()
        self.assertEqual(process.wait(timeout=10), 0)

    def test_a_key_that_was_taken_away_ends_what_was_signed_with_it(self):
        self.start_both()
        self.build(6, SIX)
        self.begin()
        self.fetch()
        os.rename(os.path.join(self.keys, "one.pub"), os.path.join(ROOT, "one.pub"))
        self.secret = os.path.join(ROOT, "two.key")
        self.new_key(self.secret, "two")
        self.restart()
        self.wait_for_state("idle")
        self.answer(self.order("activate"), "refused")


class Disk(ReleaseNode):
    def small_place(self, size):
        self.place = os.path.join(ROOT, "small")
        self.mount(self.place, f"size={size}")

    def test_a_release_that_has_no_room_is_refused_before_it_travels(self):
        self.small_place("1m")
        self.start_both()
        self.build(6, {**SIX, "huge": os.urandom(2_000_000)})
        self.assertIn("the disk is full: 2300015 bytes are missing", self.begin("refused")["problem"])

    def test_a_disk_that_fills_up_meanwhile_leaves_the_current_release_and_can_be_mended(self):
        self.small_place("4m")
        self.start_both()
        self.install(6, SIX)
        self.build(7, {**SIX, "huge": os.urandom(2_000_000)})
        self.begin()
        filler = os.path.join(self.place, "filler")
        with open(filler, "wb") as file:
            try:
                while True:
                    file.write(bytes(65536))
                    file.flush()
            except OSError:
                pass
        fetching = self.fetch("fetching", expect=1)
        self.assertRegex(fetching["problem"], "huge: .*the disk is full")
        self.assertEqual(self.check_tree(), 6)
        os.unlink(filler)
        self.fetch()
        self.activate()
        self.assertEqual(self.check_tree(), 7)


class Start(ReleaseNode):
    """Mistakes that are told before anything is started."""

    def refused(self, *arguments, expect=3):
        done = self.node.run(self.node_command("run", *arguments), capture_output=True, text=True, timeout=20)
        self.assertEqual(done.returncode, expect, done.stderr)
        return done.stderr

    def test_arguments_that_do_not_fit_are_wrong(self):
        place, keys = f"base={self.place}", ("--keys", self.keys)
        self.assertIn("--keys", self.refused("--releases", place, expect=2))
        self.assertIn("--releases", self.refused(*keys, expect=2))
        self.assertIn("files or releases", self.refused("--location", f"1={self.place}", "--releases", place, *keys,
                                                        expect=2))
        for wrong in ("base", "=/x", "base=", "9:base=/x", "x:base=/x", "Base=/x", "1:=/x"):
            self.assertIn("--releases", self.refused("--releases", wrong, *keys, expect=2))

    def test_places_keys_and_states_that_cannot_be_used_are_named(self):
        place, keys = ("--releases", f"base={self.place}"), ("--keys", self.keys)
        state = ("--state", self.state)
        missing = os.path.join(ROOT, "missing")
        self.assertIn(f"--releases: '{missing}': No such file",
                      self.refused("--releases", f"base={missing}", *keys, *state))
        self.assertIn("--keys: ", self.refused(*place, "--keys", missing, *state))
        empty = self.directory("empty")
        self.assertIn("has no file NAME.pub", self.refused(*place, "--keys", empty, *state))
        self.assertIn("--keys: 2 signatures by different keys are needed, and only 1 is trusted",
                      self.refused(*place, *keys, *state, "--threshold", "2"))
        inside = os.path.join(self.place, "state")
        self.assertIn("must not be inside of", self.refused(*place, *keys, "--state", inside))
        long = self.directory("p" * 110)
        self.assertIn("is too long", self.refused("--releases", f"base={long}", *keys, *state))
        with open(os.path.join(self.state, "base.state"), "w", encoding="utf-8") as file:
            file.write("pkgdist-state 1\ninstalled")
        self.assertIn("the state is damaged", self.refused(*place, *keys, *state))

    def test_two_nodes_do_not_share_a_place(self):
        self.start()
        lab.wait_until(self.states, 10, "the node")
        self.assertIn("another process installs releases there",
                      self.refused("--releases", f"base={self.place}", "--keys", self.keys, "--state", self.state))

    def test_a_node_without_releases_says_so(self):
        self.start_node(self.node)
        lab.wait_until(lambda: self.node_events(self.node, "listening"), 10, "the node")
        done = self.node.run(self.node_command("release", "status"), capture_output=True, text=True, timeout=20)
        self.assertEqual(done.returncode, 3)
        self.assertIn("takes no releases", done.stderr)

    def test_another_location_than_the_first_may_take_releases(self):
        with open(self.log_of(self.node), "ab") as log:
            self.node_processes[self.node.name] = self.node.spawn(
                self.node_command("run", "--releases", f"4:base={self.place}", "--keys", self.keys, "--state",
                                  self.state), stdout=log)
        lab.wait_until(self.states, 10, "the node")
        self.assertEqual(self.states()[-1]["location"], 4)
