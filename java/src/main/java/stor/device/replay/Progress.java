package stor.device.replay;

import java.io.PrintStream;
import java.util.Locale;

/** Shows how far a long run is: a bar on a terminal, otherwise a line every few seconds. */
final class Progress {
    private static final int BAR_WIDTH = 40;
    private static final long BAR_NANOS = 100_000_000L;
    private static final long LINE_NANOS = 5_000_000_000L;

    private final PrintStream out;
    private final boolean terminal;
    private long lastShown = System.nanoTime();

    Progress(PrintStream out, boolean terminal) {
        this.out = out;
        this.terminal = terminal;
    }

    /** Shows a state, unless the last one was shown only just now. */
    void update(double fraction, String state) {
        long now = System.nanoTime();
        if (now - lastShown < (terminal ? BAR_NANOS : LINE_NANOS)) {
            return;
        }
        lastShown = now;
        if (terminal) {
            int filled = (int) (fraction * BAR_WIDTH);
            out.printf(Locale.ROOT, "\r[%s%s] %3.0f%% %s", "#".repeat(filled),
                    " ".repeat(BAR_WIDTH - filled), fraction * 100, state);
        } else {
            out.printf(Locale.ROOT, "%3.0f%% %s%n", fraction * 100, state);
        }
        out.flush();
    }

    /** Ends the bar, so that what is printed next starts on a line of its own. */
    void finish() {
        if (terminal) {
            out.print("\r\033[K");
            out.flush();
        }
    }
}
