package stor.device.replay;

import java.io.PrintStream;
import java.util.Locale;

/** Shows how far a long run is: a bar on a terminal, otherwise a line every few seconds. */
final class Progress {
    private static final int BAR_WIDTH = 30;
    private static final long BAR_NANOS = 100_000_000L;
    private static final long LINE_NANOS = 5_000_000_000L;

    private final PrintStream out;
    private final boolean terminal;
    private final long start = System.nanoTime();
    private long lastShown = start;

    Progress(PrintStream out, boolean terminal) {
        this.out = out;
        this.terminal = terminal;
    }

    /** Shows a state, unless the last one was shown only just now. */
    void update(double fraction, long requests, String state) {
        long now = System.nanoTime();
        if (now - lastShown < (terminal ? BAR_NANOS : LINE_NANOS)) {
            return;
        }
        lastShown = now;
        double seconds = (now - start) / 1e9;
        double left = fraction > 0 ? seconds / fraction - seconds : 0;
        String text = String.format(Locale.ROOT, "%3.0f%%  %,d requests, %,.0f/s, %.0f s left, %s",
                fraction * 100, requests, requests / seconds, left, state);
        if (terminal) {
            int filled = (int) (fraction * BAR_WIDTH);
            out.printf("\r[%s%s] %s\033[K", "#".repeat(filled), " ".repeat(BAR_WIDTH - filled),
                    text);
        } else {
            out.println(text);
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
