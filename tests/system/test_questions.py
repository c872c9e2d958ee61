"""Questions of a lead to the program of a node, asked again before and after the answer.

The lead is scripted: it asks what it likes, as often as it likes.
"""

import base64
import json
import os

import wire
from scripted_lead import ScriptedLead
from support import ROOT, SystemTest, lab

PROGRAM_CLASS = 5


class QuestionsAskedAgain(SystemTest):
    NODES = 1

    def setUp(self):
        super().setUp()
        self.node, = self.net.nodes
        self.gate, self.runs = os.path.join(ROOT, "gate"), os.path.join(ROOT, "runs")
        command = f"echo run >> {self.runs}; while ! test -e {self.gate}; do sleep 0.05; done"
        with open(self.log_of(self.node), "ab") as log:
            self.node_processes[self.node.name] = self.node.spawn(
                [self.programs.node, "--interface", self.node.address, "--location",
                 f"1={self.directory_of(self.node)}", "--json", "run", "--on-complete", command],
                stdout=log)
        self.lead = ScriptedLead(self.net.lead)
        self.addCleanup(self.lead.__exit__)
        self.lead.wait_for_node(self.node)

    def ask(self, text):
        self.lead.message(text.encode(), msg_class=PROGRAM_CLASS)

    def question(self, **fields):
        self.ask(f"pkgdist-question 1 {json.dumps(fields)}\n")

    def said(self):
        """What the node's program has said, each once although the node repeats it: [text]."""
        self.lead.receive(0.05)
        texts = {header["sequence"]: body["data"].decode() for header, body in self.lead.control_answers
                 if header["msg_id"] == wire.CTRL}
        return [texts[sequence] for sequence in sorted(texts)]

    def answers(self, number):
        start = "pkgdist-answer 1 "
        found = [json.loads(text[len(start):]) for text in self.said() if text.startswith(start)]
        return [answer for answer in found if answer["number"] == number]

    def wait_for_answers(self, number, count):
        lab.wait_until(lambda: len(self.answers(number)) >= count, 20,
                       f"{count} answers to question {number}")
        return self.answers(number)

    def test_the_command_of_a_push_runs_once_and_its_end_is_told_each_time(self):
        question = {"number": 5, "complete": {"location": 1, "transaction": 9, "status": 0}}
        self.question(**question)
        lab.wait_until(lambda: os.path.exists(self.runs), what="the command to run")
        self.question(**question)
        self.assertEqual(self.wait_for_answers(5, 1), [{"number": 5, "states": [], "working": True}])
        open(self.gate, "w", encoding="ascii").close()
        self.assertEqual(self.wait_for_answers(5, 2)[1], {"number": 5, "states": ["done"]})
        self.question(**question)
        self.assertEqual(self.wait_for_answers(5, 3)[2], {"number": 5, "states": ["done"]})
        with open(self.runs, encoding="ascii") as file:
            self.assertEqual(file.read(), "run\n")

    def test_what_was_removed_is_told_again_and_nothing_is_removed_again(self):
        path = os.path.join(self.directory_of(self.node), "file")
        question = {"number": 6, "remove": {"location": 1, "files": True,
                                            "names": [base64.b64encode(b"file").decode()]}}
        open(path, "w", encoding="ascii").close()
        self.question(**question)
        self.assertEqual(self.wait_for_answers(6, 1), [{"number": 6, "states": ["absent"]}])
        open(path, "w", encoding="ascii").close()
        self.question(**question)
        self.assertEqual(self.wait_for_answers(6, 2)[1], {"number": 6, "states": ["absent"]})
        self.assertTrue(os.path.exists(path), "made since, and not what was asked about")

    def test_a_disk_is_written_again_or_the_node_says_that_it_still_writes(self):
        for count in (1, 2):
            self.ask("pkgdist-flush 1 7 1\n")
            lab.wait_until(lambda: self.said().count("pkgdist-flushed 1 7 1 0\n") >= count, 20,
                           f"{count} answers")
