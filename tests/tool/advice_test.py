"""What `wrapper-audio doctor` advises, done: each piece of advice that it gives helps."""

import errno
import os
import signal
import subprocess
import unittest

from host import (
    CLIPPING,
    FINE,
    HISS,
    HOST,
    NO_DEVICE,
    NO_INPUT_DEVICE,
    OPEN_FAILED,
    READ_FAILED,
    SPEECH,
    USAGE,
    ZEROS,
    HostTest,
)
from servers_test import ServerTest, servers

IS_WELL = r"--denoise works: denoising"


class Advised(HostTest):
    def assert_advises(self, words, *arguments, ends=None, **options):
        code, output, errors = self.host("doctor", *arguments, **options)
        self.assertIn(words, output + errors)
        self.assertEqual(code, ends, errors)

    def assert_is_well(self, *arguments, **options):
        code, output, errors = self.host("doctor", *arguments, **options)
        self.assertEqual((code, errors), (FINE, ""))
        self.assertRegex(output, IS_WELL)
        self.assertNotIn("the input ", output)


class OnFileMicrophones(Advised):
    def test_connect_a_microphone(self):
        (self.folder / "microphone.conf").write_text(NO_DEVICE)
        self.assert_advises("Connect a microphone", ends=NO_INPUT_DEVICE)
        self.listen_to(SPEECH)
        self.assert_is_well()

    def test_close_the_other_program_or_choose_another_device(self):
        self.listen_to(SPEECH)
        shared = {"MICROPHONE_LOCK": str(self.folder / "lock"), "MICROPHONE_PACED": "1"}
        other = self.start("record", self.file, microphone=shared)
        self.wait_for(lambda: self.file.exists() and self.file.stat().st_size > 10000, other)
        self.assert_advises(
            "another program is using the device. Close the other program, or choose another device",
            ends=OPEN_FAILED,
            microphone=shared,
        )
        self.assert_is_well("--device", "filemic", microphone=shared)
        other.send_signal(signal.SIGINT)
        self.assertEqual(other.wait(timeout=10), FINE)
        self.assert_is_well(microphone=shared)

    def test_choose_one_of_the_devices_listed(self):
        self.listen_to(SPEECH)
        for wanted in "cellar", "ALSA":  # no device, and several
            code, _, errors = self.host("doctor", "--device", wanted)
            self.assertEqual(code, USAGE)
            *listed, last = errors.splitlines()[1:]
            self.assertEqual((len(listed), last), (2, "Choose one of these"))
            for device in listed:
                self.assert_is_well("--device", device.strip())

    def test_choose_another_device_than_one_that_is_silent(self):
        self.listen_to(SPEECH)
        with open(self.folder / "microphone.conf", "a") as configuration:
            configuration.write('pcm.silent { type file slave.pcm null file "/dev/null" infile "/dev/zero" format raw }\n')
            configuration.write("pcm.null { type null }\n")
        self.assert_advises(ZEROS, "-d", "silent", ends=FINE)
        self.assert_is_well("-d", "filemic")

    def test_raise_or_lower_its_level(self):
        for samples, advice in ([-33, 33], HISS), ([-32768, 32767], CLIPPING):
            self.listen_to_samples(samples * 24000 * 3)
            self.assert_advises(advice, ends=FINE)
        self.listen_to(SPEECH)
        self.assert_is_well()

    def test_let_this_user_have_it_or_connect_it_again(self):
        self.listen_to(SPEECH)
        for answer, words in (
            (errno.EACCES, "this user may not use the device. Let this user have it, as members of the group audio"),
            (errno.EPERM, "this user may not use the device. Let this user have it, as members of the group audio"),
        ):
            self.assert_advises(words, ends=OPEN_FAILED, microphone={"MICROPHONE_ANSWER": str(answer)})
        for answer in errno.ENODEV, errno.ENOENT:
            for more in {}, {"MICROPHONE_FAILS_AFTER": "3"}:
                words = "the device is not there any more. Connect it and open it again, or choose another device"
                microphone = {"MICROPHONE_ANSWER": str(answer), **more}
                self.assert_advises(words, ends=READ_FAILED, microphone=microphone)
                self.assert_is_well("--device", "filemic", microphone={"MICROPHONE_ANSWER": str(answer)})
        self.assert_is_well(microphone={})

    def test_become_a_member_of_the_group_audio(self):
        if os.geteuid() != 0:
            self.skipTest("only root can make a /dev/snd")
        self.listen_to(SPEECH)
        script = """set -e
            devices='null zero full urandom' code=0
            mkdir -p "$1/dev/snd" && chown nobody:audio "$1/dev/snd" && chmod 750 "$1/dev/snd"
            for name in $devices; do touch "$1/dev/$name"; mount --bind "/dev/$name" "$1/dev/$name"; done
            mount --rbind "$1/dev" /dev
            setpriv --bounding-set=-all --inh-caps=-all --groups "$2" "$3" doctor || code=$?
            umount --recursive /dev
            for name in $devices; do umount "$1/dev/$name"; done
            exit $code"""
        namespace = ["unshare", "--mount"]
        if subprocess.run([*namespace, "true"], capture_output=True).returncode != 0:
            namespace += ["--propagation", "unchanged"]  # in a chroot whose root is no mount nothing else is possible

        def doctor(groups):
            done = subprocess.run(
                [*namespace, "sh", "-c", script, "sh", self.folder, groups, HOST],
                cwd=self.folder,
                # libjack leaves its database behind when it may not open it.
                env=self.environment(None),
                capture_output=True,
                text=True,
                timeout=30,
            )
            self.assertEqual((done.returncode, done.stderr), (FINE, ""))
            return done.stdout

        # Root without its privileges, which is neither the owner nor, at first, in the group.
        self.assertIn("this user cannot read /dev/snd; members of the group audio can", doctor("65534"))
        self.assertIn("/dev/snd is there", doctor("audio"))


class OnPulseAudio(ServerTest, Advised):
    kind = servers.PulseAudio

    def setUp(self):
        super().setUp()
        self.wait_until_device("ALSA:pulse")
        self.hear()

    def hear(self):
        self.server.play(self.sound)
        self.wait_for(lambda: "peak -inf" not in self.host("meter", "--seconds", 0.3)[1], what="nothing is heard")

    def test_start_the_sound_server(self):
        self.server.kill()
        self.assert_advises("or start the sound server", ends=NO_INPUT_DEVICE)
        self.server.restart()
        self.hear()
        self.assert_is_well()

    def test_restart_the_sound_server(self):
        self.server.suspend()
        # The doctor would wait longer for the list of devices, and find none then.
        code, _, errors = self.record(self.file)
        self.assertEqual(code, OPEN_FAILED)
        self.assertRegex(errors, r"does not respond.*\. Reconnect the device, or restart the sound server\n\Z")
        self.server.restart()
        self.hear()
        self.assert_is_well()

    def test_unmute_the_input(self):
        self.server.output("pactl", "set-source-mute", "mic.monitor", "1")
        self.assert_advises(ZEROS, ends=FINE)
        self.server.output("pactl", "set-source-mute", "mic.monitor", "0")
        self.assert_is_well()


if __name__ == "__main__":
    unittest.main()
