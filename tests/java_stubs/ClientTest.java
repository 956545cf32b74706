// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.kus.example;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNull;

import android.hardware.usb.UsbConfiguration;
import android.hardware.usb.UsbDevice;
import android.hardware.usb.UsbInterface;
import android.kus.DeviceInfo;
import android.kus.IKUsbService;
import android.kus.IKUsbServiceCallback;
import android.os.DeadObjectException;
import android.os.RemoteException;
import android.os.ServiceManager;
import android.view.InputDevice;
import java.util.Objects;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import org.junit.After;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.Timeout;

/** The example in Java beside daemons of this process; everything that happens is one line. */
public final class ClientTest {
    private static final String SERVICE = "kusbservice";

    @Rule public final Timeout mTimeout = Timeout.seconds(30);

    private final BlockingQueue<String> mLines = new LinkedBlockingQueue<>();

    private final Client.Listener mListener = new Client.Listener() {
        @Override
        public void onVerdict(DeviceInfo device, boolean allowed) {
            mLines.add("verdict " + device.deviceName + " " + allowed);
        }

        @Override
        public void onAdded(DeviceInfo device) {
            mLines.add("added " + device.deviceName);
        }

        @Override
        public void onRemoved(DeviceInfo device) {
            mLines.add("removed " + device.deviceName);
        }
    };

    /** Allows all but "Refused". As the real one it takes no null, and "Large" is too much. */
    private final class Daemon extends IKUsbService.Stub {
        private final String mName;
        private DeathRecipient mRecipient;
        IKUsbServiceCallback mCallback;
        private boolean mDead;

        Daemon(String name) {
            mName = name;
        }

        void start() {
            ServiceManager.addService(SERVICE, this);
        }

        void die() {
            ServiceManager.removeService(SERVICE);
            mDead = true;
            if (mRecipient != null) mRecipient.binderDied();
        }

        void dieUnnoticed() {
            mDead = true;
        }

        private void tell(String what) throws RemoteException {
            if (mDead) throw new DeadObjectException();
            mLines.add(mName + " " + what);
        }

        private void check(DeviceInfo device) {
            Objects.requireNonNull(device.deviceName);
            Objects.requireNonNull(device.interfaceClasses);
            Objects.requireNonNull(device.reason);
            Objects.requireNonNull(device.categoryPath);
            if (device.deviceName.equals("Large")) throw new IllegalArgumentException();
        }

        @Override
        public void linkToDeath(DeathRecipient recipient, int flags) throws RemoteException {
            if (mDead) {
                // The service manager notices it next.
                ServiceManager.removeService(SERVICE);
                mLines.add(mName + " is dead");
                throw new DeadObjectException();
            }
            mRecipient = recipient;
        }

        @Override
        public boolean unlinkToDeath(DeathRecipient recipient, int flags) {
            mLines.add(mName + " unlinked " + (recipient == mRecipient));
            return true;
        }

        @Override
        public void registerKusCallback(IKUsbServiceCallback callback) throws RemoteException {
            mCallback = callback;
            tell("registered");
        }

        @Override
        public void unregisterKusCallback(IKUsbServiceCallback callback) throws RemoteException {
            tell("unregistered " + (callback == mCallback));
        }

        @Override
        public DeviceInfo[] getDeviceList() {
            return new DeviceInfo[0];
        }

        @Override
        public void updateDeviceList(DeviceInfo device, int status) throws RemoteException {
            check(device);
            tell("updated " + device.deviceName + " " + status);
        }

        @Override
        public boolean isDeviceAllowed(DeviceInfo device) throws RemoteException {
            check(device);
            tell("asked " + device.deviceName);
            return !device.deviceName.equals("Refused");
        }

        @Override
        public void resetUsbDevices(int delayMs) {}

        @Override
        public int getInterfaceVersion() {
            return VERSION;
        }
    }

    private static DeviceInfo device(int type, int id, String name) {
        DeviceInfo device = new DeviceInfo();
        device.deviceType = type;
        device.deviceId = id;
        device.deviceName = name;
        device.interfaceClasses = new int[0];
        device.reason = "";
        device.categoryPath = "";
        return device;
    }

    private static final DeviceInfo DISK = device(0, 3002, "Disk");
    private static final DeviceInfo KEYS = device(1, 3002, "Keys");

    private void expect(String... lines) throws InterruptedException {
        for (String line : lines) assertEquals(line, mLines.poll(10, TimeUnit.SECONDS));
    }

    private Daemon started(String name) {
        Daemon daemon = new Daemon(name);
        daemon.start();
        return daemon;
    }

    @After
    public void noServiceIsLeftAndNothingElseHappened() {
        ServiceManager.removeService(SERVICE);
        assertNull(mLines.peek());
    }

    @Test
    public void whatIsAttachedBeforeThereIsADaemonIsAskedAboutWhenItComes() throws Exception {
        Client client = new Client(mListener);
        client.attached(DISK);
        client.attached(device(0, 3003, "Refused"));
        assertNull(mLines.poll(50, TimeUnit.MILLISECONDS));
        started("first");
        expect("first registered", "first asked Disk", "verdict Disk true", "first asked Refused",
                "verdict Refused false");
        client.stop();
        expect("first unlinked true", "first unregistered true");
    }

    @Test
    public void eventsReachTheListener() throws Exception {
        Daemon daemon = started("first");
        Client client = new Client(mListener);
        expect("first registered");
        daemon.mCallback.onDeviceAdded(DISK);
        daemon.mCallback.onDeviceRemoved(DISK);
        expect("added Disk", "removed Disk");
        client.stop();
        expect("first unlinked true", "first unregistered true");
    }

    @Test
    public void newDaemonIsToldOfTheCallbackAndOfAllThatIsAttached() throws Exception {
        Daemon first = started("first");
        Client client = new Client(mListener);
        client.attached(DISK);
        client.attached(KEYS);
        expect("first registered", "first asked Disk", "verdict Disk true", "first asked Keys",
                "verdict Keys true");
        first.die();
        Daemon second = started("second");
        expect("second registered", "second asked Disk", "verdict Disk true", "second asked Keys",
                "verdict Keys true");
        client.detached(DISK);
        expect("second updated Disk 0");
        second.die();
        started("third");
        expect("third registered", "third asked Keys", "verdict Keys true");
        client.stop();
        expect("third unlinked true", "third unregistered true");
    }

    @Test
    public void deviceThatWasNeverAttachedIsNotReportedAsGone() throws Exception {
        started("first");
        Client client = new Client(mListener);
        client.detached(DISK);
        client.stop();
        expect("first registered", "first unlinked true", "first unregistered true");
    }

    @Test
    public void daemonThatDiedUnnoticedIsNotHeldOnTo() throws Exception {
        started("first").dieUnnoticed();
        Client client = new Client(mListener);
        expect("first is dead");
        started("second");
        expect("second registered");
        client.stop();
        expect("second unlinked true", "second unregistered true");
    }

    @Test
    public void noAnswerIsARefusal() throws Exception {
        Daemon first = started("first");
        Client client = new Client(mListener);
        DeviceInfo large = device(0, 3004, "Large");
        DeviceInfo empty = new DeviceInfo();
        client.attached(large);
        client.attached(empty);
        expect("first registered", "verdict Large false", "verdict null false");
        client.detached(large);
        client.detached(empty);
        first.dieUnnoticed();
        client.attached(DISK);
        expect("verdict Disk false");
        client.stop();
        expect("first unlinked true");
    }

    @Test
    public void whatIsToldAfterTheEndIsDropped() throws Exception {
        Daemon daemon = started("first");
        Client client = new Client(mListener);
        client.stop();
        expect("first registered", "first unlinked true", "first unregistered true");
        daemon.mCallback.onDeviceAdded(DISK);
        daemon.die();
        client.attached(DISK);
        assertNull(mLines.poll(50, TimeUnit.MILLISECONDS));
    }

    private static UsbDevice usbDevice(String name, UsbConfiguration... configurations) {
        return new UsbDevice() {
            @Override
            public int getDeviceId() {
                return 3002;
            }

            @Override
            public String getProductName() {
                return name;
            }

            @Override
            public int getDeviceClass() {
                return 239;
            }

            @Override
            public int getVendorId() {
                return 0x46d;
            }

            @Override
            public int getProductId() {
                return 0xc52b;
            }

            @Override
            public int getConfigurationCount() {
                return configurations.length;
            }

            @Override
            public UsbConfiguration getConfiguration(int index) {
                return configurations[index];
            }
        };
    }

    private static void assertDaemonFillsInTheRest(DeviceInfo record) {
        assertEquals("", record.reason);
        assertEquals("", record.categoryPath);
        assertEquals(0, record.status);
        assertEquals(0, record.category);
    }

    @Test
    public void usbRecordHasTheInterfacesOfOneConfigurationEachOnce() {
        DeviceInfo record = Client.recordOf(usbDevice("Camera",
                new UsbConfiguration(new UsbInterface(14, 0), new UsbInterface(14, 1),
                        new UsbInterface(1, 0)),
                new UsbConfiguration(new UsbInterface(8, 0))));
        assertEquals(0, record.deviceType);
        assertEquals(3002, record.deviceId);
        assertEquals("Camera", record.deviceName);
        assertEquals(239, record.deviceClass);
        assertEquals(0x46d, record.vendorId);
        assertEquals(0xc52b, record.productId);
        assertArrayEquals(new int[] {14, 1}, record.interfaceClasses);
        assertDaemonFillsInTheRest(record);
    }

    @Test
    public void usbDeviceWithoutNameAndConfigurationGivesNoNull() {
        DeviceInfo record = Client.recordOf(usbDevice(null));
        assertEquals("", record.deviceName);
        assertArrayEquals(new int[0], record.interfaceClasses);
        assertDaemonFillsInTheRest(record);
    }

    @Test
    public void inputRecordHasTheSources() {
        DeviceInfo record = Client.recordOf(new InputDevice() {
            @Override
            public int getId() {
                return 7;
            }

            @Override
            public String getName() {
                return "Mouse";
            }

            @Override
            public int getSources() {
                return 0x2002;
            }

            @Override
            public int getVendorId() {
                return 0x46d;
            }

            @Override
            public int getProductId() {
                return 0xc077;
            }
        });
        assertEquals(1, record.deviceType);
        assertEquals(7, record.deviceId);
        assertEquals("Mouse", record.deviceName);
        assertEquals(0x2002, record.deviceClass);
        assertEquals(0x46d, record.vendorId);
        assertEquals(0xc077, record.productId);
        assertArrayEquals(new int[0], record.interfaceClasses);
        assertDaemonFillsInTheRest(record);
    }
}
