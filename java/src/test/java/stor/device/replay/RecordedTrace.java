package stor.device.replay;

import java.io.IOException;
import java.nio.file.Path;

/** Reads a block trace for tests of other packages. */
public final class RecordedTrace {
    private RecordedTrace() {
    }

    /** Takes the requests in order. */
    public interface Store {
        /** Takes a read of {@code length} bytes. */
        void read(long offset, int length);

        /** Takes a write of {@code length} bytes. */
        void write(long offset, int length);

        /** Takes a discard of {@code length} bytes. */
        void discard(long offset, int length);
    }

    /** Hands all requests to a store. */
    public static void replay(Path path, Store store) throws IOException {
        try (TraceReader trace = new TraceReader(path)) {
            for (Request next = trace.next(); next != null; next = trace.next()) {
                switch (next.kind()) {
                    case READ -> store.read(next.offset(), (int) next.length());
                    case WRITE -> store.write(next.offset(), (int) next.length());
                    case DISCARD -> store.discard(next.offset(), (int) next.length());
                }
            }
        }
    }
}
