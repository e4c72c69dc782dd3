package stor.device.replay;

import java.io.File;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.util.Locale;
import java.util.concurrent.TimeUnit;

/**
 * Shows how far a long run is, phase by phase: on a terminal a bar that fits it, otherwise a line
 * every few seconds.
 */
final class Progress {
    private static final long BAR_NANOS = 100_000_000L;
    private static final long LINE_NANOS = 5_000_000_000L;
    private static final int DEFAULT_WIDTH = 80;
    private static final int MAX_BAR = 30;
    private static final int MIN_BAR = 5;

    private final PrintStream out;
    private final boolean terminal;
    private int width = DEFAULT_WIDTH;
    private String phase;
    private String unit;
    private long start;
    private long lastShown;

    Progress(PrintStream out, boolean terminal) {
        this.out = out;
        this.terminal = terminal;
    }

    /** Begins a phase, and counts in the unit. */
    void begin(String name, String countedUnit) {
        finish();
        phase = name;
        unit = countedUnit;
        start = System.nanoTime();
        lastShown = start;
        width = terminal ? terminalWidth() : DEFAULT_WIDTH;
    }

    /** Shows how far the phase is, unless that was shown only just now; NaN is unknown. */
    void update(double fraction, long done) {
        long now = System.nanoTime();
        if (now - lastShown < (terminal ? BAR_NANOS : LINE_NANOS)) {
            return;
        }
        lastShown = now;
        String text = text(fraction, done, (now - start) / 1e9);
        if (terminal) {
            out.print("\r" + line(fraction, text, width - 1) + "\033[K");
        } else {
            out.println(text);
        }
        out.flush();
    }

    /** Ends the bar, so that what is printed next starts on a line of its own. */
    void finish() {
        if (terminal && phase != null) {
            out.print("\r\033[K");
            out.flush();
        }
        phase = null;
    }

    /** Fits a bar and the text, or as much of it as there is room for, into a line. */
    static String line(double fraction, String text, int width) {
        int bar = Math.min(MAX_BAR, width - text.length() - 3);
        String line = text;
        if (bar >= MIN_BAR && !Double.isNaN(fraction)) {
            int filled = (int) (Math.max(0, Math.min(1, fraction)) * bar);
            line = "[" + "#".repeat(filled) + " ".repeat(bar - filled) + "] " + text;
        }
        return line.length() <= width ? line : line.substring(0, Math.max(0, width));
    }

    private String text(double fraction, long done, double seconds) {
        String rate = String.format(Locale.ROOT, "%s %s %s, %s/s", phase,
                ShortNumbers.shorten(done), unit, ShortNumbers.shorten(done / seconds));
        return Double.isNaN(fraction) || fraction <= 0 ? rate
                : String.format(Locale.ROOT, "%3.0f%% %s, %.0f s left",
                        Math.min(1, fraction) * 100, rate, Math.max(0, seconds / fraction - seconds));
    }

    private static int terminalWidth() {
        try {
            Process stty = new ProcessBuilder("stty", "size")
                    .redirectInput(new File("/dev/tty"))
                    .redirectError(ProcessBuilder.Redirect.DISCARD).start();
            String size = new String(stty.getInputStream().readAllBytes(),
                    StandardCharsets.US_ASCII).strip();
            stty.waitFor(1, TimeUnit.SECONDS);
            int columns = Integer.parseInt(size.substring(size.indexOf(' ') + 1));
            return columns > 0 ? columns : DEFAULT_WIDTH;
        } catch (IOException | NumberFormatException e) {
            return DEFAULT_WIDTH;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return DEFAULT_WIDTH;
        }
    }
}
