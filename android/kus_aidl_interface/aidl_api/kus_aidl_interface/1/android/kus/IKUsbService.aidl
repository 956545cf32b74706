package android.kus;
interface IKUsbService {
  void registerKusCallback(android.kus.IKUsbServiceCallback callback);
  void unregisterKusCallback(android.kus.IKUsbServiceCallback callback);
  android.kus.DeviceInfo[] getDeviceList();
  void updateDeviceList(in android.kus.DeviceInfo device, int status);
  boolean isDeviceAllowed(in android.kus.DeviceInfo device);
  void resetUsbDevices(int delayMs);
}
