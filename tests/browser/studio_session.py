"""A studio and a headless Chromium to drive it, for the browser tests and the benchmark.

Runs `sorn-hp studio --port 0` on loopback, reads the address it prints, and opens the page in
Debian's Chromium through chromedriver with a fresh profile and nothing that reaches the network.
"""
import http.client
import json
import math
import os
import re
import shutil
import struct
import subprocess
import tempfile
import time
import wave

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.actions.action_builder import ActionBuilder

CHROMIUM = '/usr/bin/chromium'
CHROMEDRIVER = '/usr/bin/chromedriver'
CHROMIUM_FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
                  '--disable-background-networking', '--disable-component-update', '--disable-sync',
                  '--window-size=1280,1500', '--autoplay-policy=no-user-gesture-required']


def write_wav(path, seconds, rate=48000):
    """A 16-bit stereo test programme: a log sweep on the left, a chord on the right, with a slow
    level swell so both the filter and the dynamics have work. Longer files repeat a 10 s piece."""
    period = min(seconds, 10.0)
    piece = bytearray()
    octaves = 9 / period
    for n in range(int(period * rate)):
        t = n / rate
        swell = 0.25 + 0.2 * math.sin(2 * math.pi * 0.5 * t)
        sweep = math.sin(2 * math.pi * 30 * (2 ** (t * octaves) - 1) / (math.log(2) * octaves))
        chord = sum(math.sin(2 * math.pi * f * t) for f in (220.0, 277.2, 329.6)) / 3
        piece += struct.pack('<hh', int(32767 * swell * sweep), int(32767 * swell * chord))
    frames = int(seconds * rate)
    with wave.open(path, 'wb') as w:
        w.setnchannels(2)
        w.setsampwidth(2)
        w.setframerate(rate)
        whole, rest = divmod(frames, len(piece) // 4)
        for _ in range(whole):
            w.writeframes(piece)
        w.writeframes(piece[:4 * rest])


class Studio:
    """`sorn-hp studio` on a free loopback port; stop() ends it (it removes its own files)."""

    def __init__(self, tool, audio_dir=None, args=()):
        cmd = [tool, 'studio', '--port', '0'] + (['--audio', audio_dir] if audio_dir else []) + list(args)
        self.proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        deadline = time.monotonic() + 30
        self.url = None
        while time.monotonic() < deadline:
            line = self.proc.stdout.readline()
            if not line:
                break
            m = re.search(r'http://127\.0\.0\.1:(\d+)/', line)
            if m:
                self.url, self.port = m.group(0), int(m.group(1))
                break
        if not self.url:
            self.proc.kill()
            raise RuntimeError('studio printed no address: ' + self.proc.stderr.read())

    def http(self, method, path, body=None, headers=None):
        """A raw request with the headers given (Host defaults to the studio's own); returns
        (status, headers, body bytes)."""
        conn = http.client.HTTPConnection('127.0.0.1', self.port, timeout=60)
        h = {'Host': f'127.0.0.1:{self.port}'}
        h.update(headers or {})
        conn.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        for k, v in h.items():
            if v is not None:
                conn.putheader(k, v)
        data = body if isinstance(body, (bytes, type(None))) else json.dumps(body).encode()
        if data is not None:
            conn.putheader('Content-Length', str(len(data)))
        conn.endheaders(data)
        res = conn.getresponse()
        out = (res.status, {k.lower(): v for k, v in res.getheaders()}, res.read())
        conn.close()
        return out

    def change(self, method, path, body=None):
        """A state-changing request as the page sends it (its own Origin)."""
        return self.http(method, path, body, {'Origin': f'http://127.0.0.1:{self.port}',
                                              'Content-Type': 'application/json'})

    def stop(self):
        """Stops the studio as Ctrl-C would; returns (exit status, what it wrote to stderr)."""
        if self.proc.poll() is None:
            self.proc.terminate()
        try:
            _, err = self.proc.communicate(timeout=20)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            _, err = self.proc.communicate()
        return self.proc.returncode, err


class Browser:
    """Headless Chromium with a new empty profile and a download folder of its own."""

    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix='studio-chromium-')
        self.downloads = os.path.join(self.profile, 'downloads')
        os.mkdir(self.downloads)
        o = webdriver.ChromeOptions()
        o.binary_location = CHROMIUM
        for a in CHROMIUM_FLAGS + ['--user-data-dir=' + os.path.join(self.profile, 'profile')]:
            o.add_argument(a)
        o.add_experimental_option('prefs', {'download.default_directory': self.downloads,
                                            'download.prompt_for_download': False})
        o.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
        self.driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=o)
        self.driver.set_script_timeout(60)

    def js(self, script, *args):
        return self.driver.execute_script(script, *args)

    def wait(self, what, timeout=30, step=0.02):
        """Polls the JavaScript expression `what` until it is truthy; returns its value."""
        deadline = time.monotonic() + timeout
        while True:
            v = self.js('return ' + what)
            if v:
                return v
            if time.monotonic() > deadline:
                raise AssertionError(f'timed out waiting for {what}')
            time.sleep(step)

    def open(self, url):
        self.driver.get(url)
        self.wait("document.getElementById('status').textContent.startsWith('ready')")

    def drag_point(self, group, index, dx, dy, duration=20):
        """Drags a marker of the plot by (dx, dy) CSS pixels with real pointer events."""
        p = self.js('return studio.markerClientXY(arguments[0], arguments[1])', group, index)
        x, y = round(p['x']), round(p['y'])
        ab = ActionBuilder(self.driver, duration=duration)
        ab.pointer_action.move_to_location(x, y).pointer_down().move_to_location(x + dx, y + dy).pointer_up()
        ab.perform()

    def idle(self):
        """Waits until no edit is on its way to the server."""
        self.wait('!studio.drag.busy && !studio.drag.active && studio.drag.latest === null && studio.drag.before === null')

    def console_errors(self):
        return [e for e in self.driver.get_log('browser') if e['level'] == 'SEVERE']

    def quit(self):
        self.driver.quit()
        shutil.rmtree(self.profile, ignore_errors=True)
