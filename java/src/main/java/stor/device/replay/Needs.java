package stor.device.replay;

import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.function.ToLongFunction;
import stor.device.replay.Samples.Sample;
import stor.device.store.StoreStats;

/** Answers what a system with such a load would need. */
final class Needs {
    private final Replay replay;
    private final double seconds;
    private final StoreStats stats;
    private final List<Sample> samples;

    Needs(Replay replay, double seconds) {
        this.replay = replay;
        this.seconds = seconds;
        stats = replay.store().stats();
        samples = replay.samples().all();
    }

    /** Gives the answers by name. */
    Map<String, String> table() {
        Map<String, String> answers = new LinkedHashMap<>();
        answers.put("ranges", text("%,d with buffers and %,d in files at most (sampled);"
                + " at the end %,d in files, for %,d live sectors",
                peak(StoreStats::memoryRanges), peak(StoreStats::fileRanges), stats.fileRanges(),
                replay.liveSectors()));
        answers.put("native", text("%,d bytes at most, snapshots included: %d a range, %d with a"
                + " buffer", stats.peaks().recordBytes(), StoreStats.RANGE_BYTES,
                StoreStats.RANGE_BYTES + StoreStats.BUFFER_BYTES));
        answers.put("buffers", text("%,d bytes at most (sampled), overwritten ones included",
                peak(StoreStats::bufferedBytes)));
        answers.put("refused", text("%,d inserts at the memory limit, all done after a flush",
                stats.refusedInserts()));
        answers.put("files", text("%d segments at most (sampled), %d at the end",
                peak(StoreStats::segments), stats.segments()));
        answers.put("speed", text("%,.0f requests/s in %.1f s, checks and work in the background"
                + " included", replay.requests() / seconds, seconds));
        return answers;
    }

    private long peak(ToLongFunction<StoreStats> figure) {
        return samples.stream().map(Sample::stats).mapToLong(figure).max().orElse(0);
    }

    private static String text(String format, Object... values) {
        return String.format(Locale.ROOT, format, values);
    }
}
