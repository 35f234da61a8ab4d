# What only a process of its own shows: Ctrl-C in a blocking read, and the end of the
# interpreter while links are open and their callbacks busy.
import os
import signal
import subprocess
import sys
import textwrap
import time

PRELUDE = textwrap.dedent("""
    import sys, quelt
    quelt.use_backend("sim")
""")


def start(script):
    return subprocess.Popen([sys.executable, "-c", PRELUDE + textwrap.dedent(script)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            env=dict(os.environ))


def test_ctrl_c_interrupts_a_blocking_read_promptly():
    p = start("""
        link = quelt.UartLink("QLT-Sink")  # answers nothing: read waits without end
        link.connect()
        print("reading", flush=True)
        try:
            link.read()
        except KeyboardInterrupt:
            print("interrupted", flush=True)
            sys.exit(3)
    """)
    assert p.stdout.readline().strip() == "reading"
    time.sleep(0.2)  # inside read()
    p.send_signal(signal.SIGINT)
    sent = time.monotonic()
    out, err = p.communicate(timeout=30)
    assert (p.returncode, out.strip()) == (3, "interrupted"), err
    assert time.monotonic() - sent < 5  # slices of 50 ms; generous for a busy machine


def test_interpreter_exits_cleanly_with_links_open_and_callbacks_running():
    p = start("""
        import time
        got = []
        source = quelt.UartLink("QLT-Source")  # streams without end into the callback
        source.connect()
        source.on_receive(lambda b: (got.append(b), time.sleep(0.002)))  # often busy at exit
        source.on_state_change(lambda s, e: got.append(s))
        echo = quelt.UartLink("QLT-Echo")
        echo.connect()
        echo.send(b"x" * 5000)
        while sum(len(b) for b in got if isinstance(b, bytes)) < 2000:
            pass
        print("exiting", flush=True)
    """)
    out, err = p.communicate(timeout=60)
    assert p.returncode == 0, err
    assert out.strip() == "exiting"
    assert "terminate" not in err and "Fatal" not in err, err
