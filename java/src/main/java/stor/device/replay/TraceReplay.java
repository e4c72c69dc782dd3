package stor.device.replay;

import java.io.IOException;
import java.io.PrintStream;
import java.util.Locale;
import org.HdrHistogram.Histogram;
import stor.device.skiplist.JniSkipListNative;

/** The main program: replays a trace, checks every answer, and reports. */
public final class TraceReplay {
    private static final int AGREES = 0;
    private static final int DIFFERS = 1;
    private static final int UNUSABLE = 2;

    private static final long MEMORY_LIMIT_BYTES = 10L << 30;
    private static final int PROGRESS_REQUESTS = 256;
    private static final int NATIVE_BYTES_INDEX = 6;
    private static final long SWEEP_MILLIS = 5000;

    private final ReplayOptions options;
    private final PrintStream out;
    private TraceReader.Request request;
    private long requestNumber;

    private TraceReplay(ReplayOptions options, PrintStream out) {
        this.options = options;
        this.out = out;
    }

    /**
     * Runs the program and ends the JVM with its exit status.
     *
     * @param args the command line; {@code --help} explains it
     */
    public static void main(String[] args) {
        System.exit(run(args, System.out, System.err));
    }

    /**
     * Runs the program.
     *
     * @param args the command line
     * @param out takes the report
     * @param err takes what went wrong
     * @return the exit status
     */
    public static int run(String[] args, PrintStream out, PrintStream err) {
        ReplayOptions options;
        try {
            options = ReplayOptions.parse(args);
        } catch (IllegalArgumentException e) {
            err.println("replay: " + e.getMessage());
            err.print(ReplayOptions.USAGE);
            return UNUSABLE;
        }
        if (options.help()) {
            out.print(ReplayOptions.USAGE);
            return AGREES;
        }
        TraceReplay program = new TraceReplay(options, out);
        try {
            program.replay();
            return AGREES;
        } catch (IOException e) {
            err.println("replay: trace: " + e.getMessage());
            return UNUSABLE;
        } catch (LinkageError e) {
            err.println("replay: " + e.getMessage());
            return UNUSABLE;
        } catch (RuntimeException | OutOfMemoryError e) {
            err.printf("replay: seed %d, request %d, %s:%n", options.seed(), program.requestNumber,
                    program.request);
            err.println(e instanceof Difference ? e.getMessage() : e.toString());
            return DIFFERS;
        }
    }

    private void replay() throws IOException {
        JniSkipListNative.init(MEMORY_LIMIT_BYTES);
        Replay replay = new Replay(options);
        try (replay) {
            long start = System.nanoTime();
            Progress progress = new Progress(out, System.console() != null);
            for (int pass = 0; pass < options.repeat(); pass++) {
                replayOnce(replay, progress, pass);
            }
            replay.finish();
            progress.finish();
            report(replay, System.nanoTime() - start);
        }
        checkNothingLeft(replay);
    }

    private void replayOnce(Replay replay, Progress progress, int pass) throws IOException {
        try (TraceReader trace = new TraceReader(options.trace())) {
            while ((request = trace.next()) != null) {
                requestNumber++;
                replay.serve(request);
                if (requestNumber % PROGRESS_REQUESTS == 0) {
                    progress.update((pass + trace.fractionRead()) / options.repeat(),
                            requestNumber + " requests, "
                                    + replay.buffered().model().size() + " + "
                                    + replay.files().model().size() + " ranges");
                }
            }
        }
    }

    private void report(Replay replay, long nanos) {
        double seconds = nanos / 1e9;
        print("trace     %s: %d requests: %d W, %d R, %d D; sector %d, seed %d",
                options.trace(), replay.requests(), replay.requests(TraceReader.Kind.WRITE),
                replay.requests(TraceReader.Kind.READ), replay.requests(TraceReader.Kind.DISCARD),
                options.sectorSize(), options.seed());
        print("work      %s", replay.backgroundWork());
        print("compared  %d ranges, %d buffered bytes: all agree",
                replay.buffered().comparedRanges() + replay.files().comparedRanges(),
                replay.buffered().comparedBytes() + replay.files().comparedBytes());
        print("map           ranges    valid bytes    inserts   inserted bytes");
        reportMap("buffered", replay.buffered());
        reportMap("files", replay.files());
        print("speed     %.0f requests/s in %.1f s, native calls, background work, model and"
                + " comparisons included", replay.requests() / seconds, seconds);
        reportTimes("insertWithBuff", replay.timings().inserts());
        reportTimes("getNodes", replay.timings().queries());
        print("native    %d bytes in use", nativeBytes());
    }

    private void reportMap(String name, CheckedMap map) {
        long handle = map.handle();
        print("  %-9s %8d %14d %10d %16d", name, JniSkipListNative.getSkipListSize(handle),
                JniSkipListNative.getSkipListValidLen(handle),
                JniSkipListNative.getSkipListRawCount(handle),
                JniSkipListNative.getSkipLIstRawLen(handle));
    }

    private void reportTimes(String name, Histogram nanos) {
        print("  %-14s %8d calls: %.0f calls/s; ns: mean %.0f, median %d, 99%% %d, 99.9%% %d,"
                        + " max %d", name, nanos.getTotalCount(), 1e9 / nanos.getMean(),
                nanos.getMean(), nanos.getValueAtPercentile(50), nanos.getValueAtPercentile(99),
                nanos.getValueAtPercentile(99.9), nanos.getMaxValue());
    }

    /** Shows that all buffers and all native memory have been given back. */
    private void checkNothingLeft(Replay replay) {
        Difference.check("buffers in use", replay.buffers().inUse(), 0L);
        print("buffers   0 of %d in use", replay.buffers().allocated());
        // The report asked for the first sum and so made the first sweep, with both maps in it.
        // That sum stands until the next sweep, which is the one that can bring it to 0.
        long deadline = System.nanoTime() + (SWEEP_MILLIS + 1000) * 1_000_000;
        while (nativeBytes() != 0 && System.nanoTime() < deadline) {
            sleep();
        }
        Difference.check("native bytes in use after the maps are gone", nativeBytes(), 0L);
        print("native    0 bytes in use after the maps are gone");
    }

    private static long nativeBytes() {
        return JniSkipListNative.getStats()[NATIVE_BYTES_INDEX];
    }

    private static void sleep() {
        try {
            Thread.sleep(100);
        } catch (InterruptedException e) {
            throw new IllegalStateException("interrupted", e);
        }
    }

    private void print(String format, Object... values) {
        out.printf(Locale.ROOT, format + "%n", values);
    }
}
