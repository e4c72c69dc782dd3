package stor.device.store;

import java.io.Closeable;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.io.UncheckedIOException;
import java.nio.channels.OverlappingFileLockException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Objects;
import java.util.stream.Stream;

/**
 * Keeps a folder for one store, by a file that is open as long as the store is, locked, and has the
 * process id. The system lets the lock go when the process ends, however it ends.
 *
 * <p>But such a lock holds off nobody in its own process, and is lost as soon as anything there
 * opens the file and closes it again. So who has the file open is asked, too: of this process before
 * the file is touched, and of the one that the file names.
 */
final class FolderLock implements Closeable {
    static final String NAME = "lock";

    /** The same object for all class loaders, like every string constant. */
    private static final Object IN_PROCESS = "stor.device.store.FolderLock";

    private final RandomAccessFile file;

    private FolderLock(RandomAccessFile file) {
        this.file = file;
    }

    /** Takes a folder that exists, or says who has it. */
    static FolderLock take(Path folder) throws IOException {
        Path path = folder.toRealPath().resolve(NAME);
        String me = Long.toString(ProcessHandle.current().pid());
        synchronized (IN_PROCESS) {
            if (isOpenIn(me, path)) {
                throw inUse(path, me);
            }
            return lock(path, me);
        }
    }

    private static FolderLock lock(Path path, String me) throws IOException {
        RandomAccessFile file = new RandomAccessFile(path.toFile(), "rw");
        try {
            boolean locked = tryLock(file);
            String holder = Objects.requireNonNullElse(file.readLine(), "that has just begun");
            if (!locked || !holder.equals(me) && isOpenIn(holder, path)) {
                throw inUse(path, holder);
            }
            // In place, which needs no room on a full disk.
            file.seek(0);
            file.writeBytes(me + "\n");
            file.setLength(me.length() + 1L);
            return new FolderLock(file);
        } catch (IOException | RuntimeException | Error e) {
            file.close();
            throw e;
        }
    }

    private static boolean tryLock(RandomAccessFile file) throws IOException {
        try {
            return file.getChannel().tryLock() != null;
        } catch (OverlappingFileLockException e) {
            return false;
        }
    }

    /** Tells whether a process is known to have the file open, even if that was deleted. */
    private static boolean isOpenIn(String process, Path path) {
        List<String> names = List.of(path.toString(), path + " (deleted)");
        Path handles = Path.of("/proc", process, "fd");
        if (!process.matches("\\d+") || !Files.isReadable(handles)) {
            return false;
        }
        try (Stream<Path> links = Files.list(handles)) {
            return links.anyMatch(link -> names.contains(target(link)));
        } catch (IOException | UncheckedIOException e) {
            // The process has just ended, or is somebody else's.
            return false;
        }
    }

    private static String target(Path link) {
        try {
            return Files.readSymbolicLink(link).toString();
        } catch (IOException e) {
            return "closed meanwhile";
        }
    }

    /** The file stays: another process may be about to lock it. */
    @Override
    public void close() throws IOException {
        file.close();
    }

    private static IOException inUse(Path path, String process) {
        return new IOException(path.getParent() + ": in use by process " + process
                + " (expected: a folder for this store)");
    }
}
