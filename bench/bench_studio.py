#!/usr/bin/python3
"""Benchmark of sorn-hp studio in a real browser (headless Chromium); a measurement, not a test.

Usage: bench/bench_studio.py [SORN_HP] [--edits N] [--minutes M]
  SORN_HP defaults to build/tools/sorn-hp.

1. Edit to screen: N drags of a table point (default 50), each timed in the page from the
   pointer event that moved the point to the end of the plot's redraw with the server's new
   design. Prints the median and the 95th percentile (goal: under 100 ms and 200 ms), and the
   server's share: the same edits as bare PUT requests.
2. Rendering: an M-minute stereo file (default 3) rendered from the page, from the click on
   Render until both versions are decoded and ready to play, and the server's part alone; beside
   it `sorn-hp run` on the same file for scale.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, 'tests', 'browser'))
from studio_session import Browser, Studio, write_wav  # noqa: E402

from selenium.webdriver.common.by import By  # noqa: E402


def percentile(values, q):
    s = sorted(values)
    k = (len(s) - 1) * q
    lo = int(k)
    hi = min(lo + 1, len(s) - 1)
    return s[lo] + (s[hi] - s[lo]) * (k - lo)


def edit_to_screen(browser, edits):
    times = []
    for i in range(edits):
        group, index = ('lc', 'hp', 'ea')[i % 3], 2 + (i % 5)
        step = 24 if (i // 3) % 2 == 0 else -24  # up, then back down: the tuning stays in range
        n = len(browser.js('return studio.page.timings'))
        browser.drag_point(group, index, 0, -step, duration=0)
        browser.idle()
        browser.wait(f'studio.page.timings.length > {n}')
        times.extend(browser.js(f'return studio.page.timings.slice({n})'))
    return times


def render_time(studio, browser, entry):
    d = browser.driver
    browser.js("const s = document.getElementById('audio-entry'); s.value = arguments[0];", entry)
    start = time.monotonic()
    d.find_element(By.ID, 'render').click()
    browser.wait("(!document.getElementById('player').hidden || document.getElementById('status').classList.contains('error'))"
                 " && !document.getElementById('render').disabled", timeout=1200, step=0.05)
    if 'error' in d.find_element(By.ID, 'status').get_attribute('class'):
        raise RuntimeError('render: ' + d.find_element(By.ID, 'status').text)
    return time.monotonic() - start


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('tool', nargs='?', default=os.path.join(ROOT, 'build', 'tools', 'sorn-hp'))
    ap.add_argument('--edits', type=int, default=50)
    ap.add_argument('--minutes', type=float, default=3.0)
    a = ap.parse_args()

    with tempfile.TemporaryDirectory(prefix='bench-studio-') as tmp:
        audio = os.path.join(tmp, 'audio')
        os.mkdir(audio)
        song = os.path.join(audio, 'long.wav')
        write_wav(song, a.minutes * 60)
        studio = Studio(os.path.abspath(a.tool), audio)
        browser = Browser()
        try:
            browser.open(studio.url)
            times = edit_to_screen(browser, a.edits)
            print(f'edit to screen, {len(times)} edits: median {statistics.median(times):.1f} ms, '
                  f'p95 {percentile(times, 0.95):.1f} ms, max {max(times):.1f} ms '
                  f'(goal: median < 100 ms, p95 < 200 ms)')

            # The server's share: the same kind of edit as a bare PUT, design included.
            tuning = json.loads(studio.http('GET', '/api/state')[2])['tuning']
            puts = []
            for i in range(a.edits):
                tuning['hp']['points'][4][1] = i % 2
                t0 = time.perf_counter()
                studio.change('PUT', '/api/tuning', tuning)
                puts.append(1000 * (time.perf_counter() - t0))
            print(f'of which the server (PUT /api/tuning, design included): median {statistics.median(puts):.1f} ms, '
                  f'p95 {percentile(puts, 0.95):.1f} ms')

            page_s = render_time(studio, browser, 'long.wav')
            t0 = time.monotonic()
            status, _, body = studio.change('POST', '/api/render', {'entry': 'long.wav', 'device': 'wired-headphone',
                                                                    'format': 'float'})
            job = json.loads(body)['job']
            while True:
                _, _, body = studio.http('GET', f'/api/jobs/{job}')
                if json.loads(body)['state'] != 'running':
                    break
                time.sleep(0.02)
            server_s = time.monotonic() - t0

            tuning = os.path.join(tmp, 'tuning.json')
            with open(tuning, 'wb') as f:
                f.write(studio.http('GET', '/api/export/tuning.json')[2])
            t0 = time.monotonic()
            subprocess.run([a.tool, 'run', song, os.path.join(tmp, 'run.wav'), '--tuning', tuning, '-y'],
                           check=True, capture_output=True)
            run_s = time.monotonic() - t0
            print(f'render of a {a.minutes:g}-minute stereo 48 kHz file: {page_s:.2f} s from the page '
                  f'(click to both versions decoded), {server_s:.2f} s on the server alone; '
                  f'sorn-hp run {run_s:.2f} s')
        finally:
            browser.quit()
            studio.stop()
    return 0


if __name__ == '__main__':
    sys.exit(main())
