package stor.device.store;

import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.concurrent.CompletableFuture;
import stor.device.store.DeviceModel.Request;

/**
 * Kills a process with a store again and again, each time at a random moment, and compares what it
 * has left with what it had promised. The process says what it does, a byte each.
 */
public final class KilledStore {
    private static final int SECTORS = 2048;
    /** How many bytes a process says before the time runs in which it is killed. */
    private static final int WARM_UP = 50;
    private static final int LONGEST_MILLIS = 400;
    private static final int REQUEST = 'r';
    private static final int FLUSHED = 'f';
    private static final StoreSettings SETTINGS =
            new StoreSettings(DeviceModel.SECTOR, 64 << 10, 256 << 10, 1 << 20, 8);

    private KilledStore() {
    }

    /**
     * Kills as often as the first argument says. With two, a folder and a seed, is what is killed.
     *
     * @param args the arguments
     */
    public static void main(String[] args) throws Exception {
        if (args.length == 2) {
            work(Path.of(args[0]), Long.parseLong(args[1]));
        }
        Path folder = Files.createTempDirectory("killed-store-");
        int kills = Integer.parseInt(args[0]);
        System.out.println(run(folder, kills) + " requests before " + kills
                + " kills: every sector as promised");
        for (String name : List.of("journal", "lock", "reserve")) {
            Files.deleteIfExists(folder.resolve(name));
        }
        Files.delete(folder);
    }

    /** Kills that often; gives how many requests the processes had begun. */
    static long run(Path folder, int kills) throws Exception {
        DeviceModel model = new DeviceModel(0, SECTORS);
        long requests = 0;
        for (int seed = 1; seed <= kills; seed++) {
            byte[] said = killOne(folder, seed);
            requests += replay(said, seed, model);
            try (BlockStore store = BlockStore.open(folder, SETTINGS)) {
                model.checkAfterCrash(store::read);
                long most = 3L * SECTORS * DeviceModel.SECTOR + store.stats().journalBytes();
                require(store.stats().fileBytes() < most, "files: " + store.stats());
                if (seed == kills) {
                    store.discard(0, SECTORS * DeviceModel.SECTOR);
                    store.flush();
                    store.defragment();
                }
            }
        }
        try (var files = Files.list(folder)) {
            List<String> left = files.map(file -> file.getFileName().toString()).sorted().toList();
            require(left.equals(List.of("journal", "lock", "reserve")), "left: " + left);
        }
        return requests;
    }

    /** Has the model do what a process has said; gives the number of requests. */
    private static long replay(byte[] said, int seed, DeviceModel model) {
        Random random = new Random(seed);
        long requests = 0;
        for (byte what : said) {
            if (what == REQUEST) {
                model.note(draw(random, seed, ++requests));
            } else {
                model.noteFlushed();
            }
        }
        return requests;
    }

    private static Request draw(Random random, long seed, long number) {
        return Request.draw(random, SECTORS, seed << Integer.SIZE | number);
    }

    /** Starts a process, kills it, and gives what it has said until then. */
    private static byte[] killOne(Path folder, int seed) throws Exception {
        Process process = start(folder, seed, ProcessBuilder.Redirect.INHERIT);
        InputStream out = process.getInputStream();
        byte[] first = out.readNBytes(WARM_UP);
        require(first.length == WARM_UP, "the process has ended by itself");
        CompletableFuture<byte[]> rest = CompletableFuture.supplyAsync(() -> {
            try {
                return out.readAllBytes();
            } catch (IOException e) {
                throw new IllegalStateException(e);
            }
        });
        Thread.sleep(new Random(seed).nextInt(LONGEST_MILLIS));
        try (FolderDisk disk = new FolderDisk(folder)) {
            throw new AssertionError("two processes have " + disk);
        } catch (IOException e) {
            require(e.getMessage().contains("process " + process.pid()), e.getMessage());
        }
        // Not through the process, which would throw away what is still to be read.
        process.toHandle().destroyForcibly();
        process.waitFor();
        byte[] said = Arrays.copyOf(first, WARM_UP + rest.get().length);
        System.arraycopy(rest.get(), 0, said, WARM_UP, rest.get().length);
        return said;
    }

    static Process start(Path folder, long seed, ProcessBuilder.Redirect errors)
            throws IOException {
        return new ProcessBuilder(
                Path.of(System.getProperty("java.home"), "bin", "java").toString(), "-cp",
                System.getProperty("java.class.path"), KilledStore.class.getName(),
                folder.toString(), Long.toString(seed)).redirectError(errors).start();
    }

    /** Makes requests until the end of the process, with all else going on beside them. */
    private static void work(Path folder, long seed) throws IOException {
        BlockStore store = BlockStore.open(folder, SETTINGS);
        daemon(store::compact);
        daemon(store::flush);
        daemon(() -> store.snapshot().close());
        Random random = new Random(seed);
        Random flushes = new Random();
        DeviceModel model = new DeviceModel(0, SECTORS);
        OutputStream say = new FileOutputStream(FileDescriptor.out);
        for (long number = 1; true; number++) {
            say.write(REQUEST);
            model.serve(store, draw(random, seed, number));
            if (flushes.nextInt(30) == 0) {
                store.flush();
                say.write(FLUSHED);
            }
        }
    }

    /** Something to do again and again. */
    private interface Work {
        void run() throws IOException;
    }

    private static void daemon(Work work) {
        Thread thread = new Thread(() -> {
            while (true) {
                try {
                    work.run();
                } catch (IOException e) {
                    e.printStackTrace();
                    Runtime.getRuntime().halt(1);
                }
            }
        });
        thread.setDaemon(true);
        thread.start();
    }

    private static void require(boolean holds, String what) {
        if (!holds) {
            throw new AssertionError(what);
        }
    }
}
