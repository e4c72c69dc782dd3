package stor.device.store;

import java.io.EOFException;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.TreeSet;

/** A disk that knows what of it was forced, and so what a power cut may leave. */
final class MemoryDisk implements Disk {
    private final Map<String, Content> names = new HashMap<>();
    private final Map<String, Content> forcedNames = new HashMap<>();

    /** The bytes of a file as they are, as they were forced, and what lies between. */
    private static final class Content implements DiskFile {
        private byte[] bytes = {};
        private byte[] forced = {};
        private final List<Change> unforced = new ArrayList<>();

        /** Bytes written, or a new length if there are none. */
        private record Change(long at, byte[] bytes) {
            byte[] applyTo(byte[] content) {
                if (bytes == null) {
                    return Arrays.copyOf(content, (int) at);
                }
                byte[] longer =
                        Arrays.copyOf(content, (int) Math.max(content.length, at + bytes.length));
                System.arraycopy(bytes, 0, longer, (int) at, bytes.length);
                return longer;
            }
        }

        private void change(Change change) {
            unforced.add(change);
            bytes = change.applyTo(bytes);
        }

        @Override
        public synchronized void write(ByteBuffer from, long position) {
            byte[] written = new byte[from.remaining()];
            from.get(written);
            change(new Change(position, written));
        }

        @Override
        public synchronized void read(ByteBuffer to, long position) throws IOException {
            if (position + to.remaining() > bytes.length) {
                throw new EOFException("ends at " + bytes.length);
            }
            to.put(bytes, (int) position, to.remaining());
        }

        @Override
        public synchronized long size() {
            return bytes.length;
        }

        @Override
        public synchronized void truncate(long size) {
            change(new Change(size, null));
        }

        @Override
        public synchronized void force() {
            forced = bytes;
            unforced.clear();
        }

        @Override
        public void close() {
            // Nothing is held.
        }

        /** Some of what was not forced is there, whole or torn, whatever came before it. */
        Content afterPowerCut(Random random) {
            Content left = new Content();
            left.bytes = forced.clone();
            for (Change change : unforced) {
                int fate = random.nextInt(3);
                if (fate == 0 || fate == 1 && change.bytes == null) {
                    left.bytes = change.applyTo(left.bytes);
                } else if (fate == 1) {
                    int from = random.nextInt(change.bytes.length + 1);
                    int to = from + random.nextInt(change.bytes.length + 1 - from);
                    left.bytes = new Change(change.at + from,
                            Arrays.copyOfRange(change.bytes, from, to)).applyTo(left.bytes);
                }
            }
            left.forced = left.bytes;
            return left;
        }
    }

    /** Gives what the disk may hold after a power cut: each name as it was forced, or as it is. */
    synchronized MemoryDisk afterPowerCut(Random random) {
        MemoryDisk left = new MemoryDisk();
        Map<Content, Content> contents = new HashMap<>();
        TreeSet<String> all = new TreeSet<>(names.keySet());
        all.addAll(forcedNames.keySet());
        for (String name : all) {
            Content content = (random.nextBoolean() ? names : forcedNames).get(name);
            if (content != null) {
                left.names.put(name,
                        contents.computeIfAbsent(content, c -> c.afterPowerCut(random)));
            }
        }
        left.forcedNames.putAll(left.names);
        return left;
    }

    /** Gives the bytes of a file, for a test to damage. */
    synchronized byte[] bytes(String name) {
        return names.get(name).bytes;
    }

    @Override
    public synchronized List<String> names() {
        return List.copyOf(new TreeSet<>(names.keySet()));
    }

    @Override
    public synchronized long size(String name) {
        return names.get(name).size();
    }

    @Override
    public synchronized DiskFile create(String name) {
        names.put(name, new Content());
        return names.get(name);
    }

    @Override
    public synchronized DiskFile open(String name) throws IOException {
        if (!names.containsKey(name)) {
            throw new IOException(name + ": missing");
        }
        return names.get(name);
    }

    @Override
    public synchronized void rename(String from, String to) {
        names.put(to, names.remove(from));
    }

    @Override
    public synchronized void delete(String name) {
        names.remove(name);
    }

    @Override
    public synchronized void forceNames() {
        forcedNames.clear();
        forcedNames.putAll(names);
    }

    @Override
    public void close() {
        // Nothing is held.
    }
}
