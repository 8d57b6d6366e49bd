<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU">
<context>
    <name>Leftovers</name>
    <message>
        <source>Records in %1 belong to another user and are not sent</source>
        <translation>Записи в %1 принадлежат другому пользователю и не отправляются</translation>
    </message>
    <message>
        <source>Records in %1 belong to another host and are not sent from here</source>
        <translation>Записи в %1 принадлежат другому узлу и отсюда не отправляются</translation>
    </message>
    <message>
        <source>Records in %1 are not sent: this file system has no locks to tell whether their module runs</source>
        <translation>Записи в %1 не отправляются: файловая система без блокировок не показывает, работает ли их модуль</translation>
    </message>
    <message>
        <source>Records in %1 cannot go back into the spool yet: </source>
        <translation>Записи из %1 пока нельзя вернуть в очередь: </translation>
    </message>
    <message>
        <source>Refused file %1: the system went down before it was surely on the disk</source>
        <translation>Файл %1 отложен: система остановилась раньше, чем он наверняка попал на диск</translation>
    </message>
</context>
<context>
    <name>Monitor</name>
    <message>
        <source>The link to %1 is up</source>
        <translation>Соединение с %1 установлено</translation>
    </message>
    <message>
        <source>The link to %1 is down</source>
        <translation>Соединение с %1 потеряно</translation>
    </message>
    <message>
        <source>not connected to %1</source>
        <translation>нет соединения с %1</translation>
    </message>
    <message>
        <source>waiting for %1 on the bus</source>
        <translation>ожидание %1 на шине</translation>
    </message>
    <message>
        <source>joining the bus</source>
        <translation>подключение к шине</translation>
    </message>
    <message>
        <source>waiting for the administration server %1</source>
        <translation>ожидание сервера администрирования %1</translation>
    </message>
    <message>
        <source>link up</source>
        <translation>связь есть</translation>
    </message>
    <message>
        <source>link down</source>
        <translation>связи нет</translation>
    </message>
    <message>
        <source>no transport, records are dropped</source>
        <translation>нет транспорта, записи отбрасываются</translation>
    </message>
    <message>
        <source>%1 waiting</source>
        <translation>в очереди: %1</translation>
    </message>
    <message>
        <source>Can&apos;t write the status file %1: %2</source>
        <translation>Не удалось записать файл состояния %1: %2</translation>
    </message>
</context>
<context>
    <name>Morvane</name>
    <message>
        <source>Can not delete file %1</source>
        <translation>Не удалось удалить файл %1</translation>
    </message>
    <message>
        <source>New data</source>
        <translation>Новые данные</translation>
    </message>
    <message>
        <source>Connection established.</source>
        <translation>Соединение установлено.</translation>
    </message>
    <message>
        <source>Socket error: %1</source>
        <translation>Ошибка сокета: %1</translation>
    </message>
    <message>
        <source>the name cannot be a file&apos;s</source>
        <translation>имя не годится для файла</translation>
    </message>
    <message>
        <source>Dropped the record &quot;%1&quot; of %2 bytes from %3: %4</source>
        <translation>Отброшена запись «%1», %2 байт, от %3: %4</translation>
    </message>
    <message>
        <source>a nameless module</source>
        <translation>модуля без имени</translation>
    </message>
</context>
<context>
    <name>ReceivedFiles</name>
    <message>
        <source>The received file %1 is lost, it could not be written</source>
        <translation>Принятый файл %1 потерян: его не удалось записать</translation>
    </message>
    <message>
        <source>Received files are lost, there was no time to write them</source>
        <translation>Принятые файлы потеряны: на их запись не хватило времени</translation>
    </message>
    <message>
        <source>The received file %1 is not written, its checksum is wrong</source>
        <translation>Принятый файл %1 не записан: его контрольная сумма неверна</translation>
    </message>
    <message>
        <source>The received file %1 is not written, it has more than %2 bytes when inflated</source>
        <translation>Принятый файл %1 не записан: в распакованном виде в нём больше %2 байт</translation>
    </message>
    <message>
        <source>The received file %1 is damaged, only its beginning is written</source>
        <translation>Принятый файл %1 повреждён, записано только его начало</translation>
    </message>
    <message>
        <source>The received file %1 is written now</source>
        <translation>Принятый файл %1 теперь записан</translation>
    </message>
    <message>
        <source>Can&apos;t write the received file %1, trying again: %2</source>
        <translation>Нельзя записать принятый файл %1, попытки продолжаются: %2</translation>
    </message>
</context>
<context>
    <name>ScanThread</name>
    <message>
        <source>Can&apos;t remove the lock file of %1, nothing is sent</source>
        <translation>Не удалось удалить файл блокировки в %1, отправка остановлена</translation>
    </message>
    <message>
        <source>Transmitted file</source>
        <translation>Передан файл</translation>
    </message>
    <message>
        <source>Can&apos;t delete file</source>
        <translation>Не удалось удалить файл</translation>
    </message>
    <message>
        <source>Refused file %1: %2</source>
        <translation>Файл %1 отложен: %2</translation>
    </message>
    <message>
        <source>Refused file %1, and can&apos;t move it: %2</source>
        <translation>Файл %1 не принят к отправке, и переместить его не удалось: %2</translation>
    </message>
    <message>
        <source>The peer acknowledges no more of file %1, it is sent afresh</source>
        <translation>Удалённая сторона больше не подтверждает файл %1, он отправляется заново</translation>
    </message>
    <message>
        <source>Using UDP port %1 now</source>
        <translation>UDP-порт %1 теперь используется</translation>
    </message>
    <message>
        <source>Can&apos;t use UDP port %1: %2</source>
        <translation>Не удалось использовать UDP-порт %1: %2</translation>
    </message>
    <message>
        <source>Nothing is sent: &quot;%1&quot; is not the numeric address of a peer</source>
        <translation>Отправка невозможна: «%1» не является числовым адресом удалённой стороны</translation>
    </message>
    <message>
        <source>Nothing is sent or received: the spool directory is the working directory, and received files would be sent back</source>
        <translation>Ничего не отправляется и не принимается: каталог очереди совпадает с рабочим каталогом, и принятые файлы ушли бы обратно</translation>
    </message>
    <message>
        <source>Can&apos;t read file %1, trying again: %2</source>
        <translation>Нельзя прочитать файл %1, попытки продолжаются: %2</translation>
    </message>
    <message>
        <source>The peer has lost part of file %1, it is sent afresh</source>
        <translation>Удалённая сторона потеряла часть файла %1, он отправляется заново</translation>
    </message>
    <message>
        <source>Nothing is sent: %1 with port %2 is this module itself</source>
        <translation>Ничего не отправляется: %1 с портом %2 - это сам модуль</translation>
    </message>
    <message>
        <source>Datagrams from %1 are dropped: it is not the peer</source>
        <translation>Датаграммы от %1 отбрасываются: это не удалённая сторона</translation>
    </message>
    <message>
        <source>Further lines about received files are left out for a minute</source>
        <translation>Дальнейшие строки о принятых файлах на минуту опущены</translation>
    </message>
</context>
<context>
    <name>SpoolDirectory</name>
    <message>
        <source>Refused file %1: its name is no UTF-8 text</source>
        <translation>Файл %1 отложен: его имя не является текстом в UTF-8</translation>
    </message>
    <message>
        <source>Can&apos;t move file %1, whose name is no UTF-8 text</source>
        <translation>Нельзя переместить файл %1, имя которого не является текстом в UTF-8</translation>
    </message>
</context>
<context>
    <name>SpoolKeeper</name>
    <message>
        <source>Can&apos;t bring the files of %1 to the disk: %2</source>
        <translation>Не удаётся записать файлы каталога %1 на диск: %2</translation>
    </message>
    <message>
        <source>The files of %1 are brought to the disk again</source>
        <translation>Файлы каталога %1 снова записываются на диск</translation>
    </message>
    <message>
        <source>Records cannot go back into %1 yet: %2</source>
        <translation>Записи пока нельзя вернуть в %1: %2</translation>
    </message>
</context>
<context>
    <name>SpoolLock</name>
    <message>
        <source>Waiting for the lock file %1</source>
        <translation>Ожидание файла блокировки %1</translation>
    </message>
    <message>
        <source>nobody has held it for %1 seconds</source>
        <translation>её никто не держит уже %1 с</translation>
    </message>
    <message>
        <source>its writer was killed</source>
        <translation>её владелец был остановлен</translation>
    </message>
    <message>
        <source>Removed the lock file %1: %2</source>
        <translation>Удалён файл блокировки %1: %2</translation>
    </message>
</context>
<context>
    <name>SpoolSender</name>
    <message>
        <source>The peer acknowledges %1 records after %2: the link is ended</source>
        <translation>Удалённая сторона подтверждает записей: %1, после %2; соединение разорвано</translation>
    </message>
    <message>
        <source>The peer acknowledges %1 records, which it cannot have: the link is ended</source>
        <translation>Удалённая сторона подтверждает записей: %1, столько она не получала; соединение разорвано</translation>
    </message>
    <message>
        <source>The peer has acknowledged %1 records and no more in time: the link is ended</source>
        <translation>Удалённая сторона подтвердила записей: %1, и больше ни одной вовремя; соединение разорвано</translation>
    </message>
</context>
<context>
    <name>TConnector</name>
    <message>
        <source>Start server: %1 Ok!!!! 
</source>
        <translation>Запуск сервера: %1 выполнен!!!! 
</translation>
    </message>
    <message>
        <source>Start Error: %1
</source>
        <translation>Ошибка запуска: %1
</translation>
    </message>
    <message>
        <source>New Out Connnection
</source>
        <translation>Новое исходящее соединение
</translation>
    </message>
    <message>
        <source>Connnection Out Error: %1 %2
</source>
        <translation>Ошибка исходящего соединения: %1 %2
</translation>
    </message>
    <message>
        <source>Connnection Disconnect: %0
</source>
        <translation>Исходящее соединение разорвано: %0
</translation>
    </message>
    <message>
        <source>Admin connection is closed. Stopping application.</source>
        <translation>Соединение с сервером администрирования закрыто. Приложение останавливается.</translation>
    </message>
    <message>
        <source>New In Connection %0
</source>
        <translation>Новое входящее соединение %0
</translation>
    </message>
    <message>
        <source>Connection in disconnection: %0
</source>
        <translation>Входящее соединение разорвано: %0
</translation>
    </message>
    <message>
        <source>Connection In Error: %0
</source>
        <translation>Ошибка входящего соединения: %0
</translation>
    </message>
    <message>
        <source>Connection %1 does not read: frames for it are dropped</source>
        <translation>Соединение %1 не читает данные: кадры для него отбрасываются</translation>
    </message>
    <message>
        <source>Connection %1: %2 frames of %3 bytes were dropped, because it did not read</source>
        <translation>Соединение %1: отброшено кадров: %2, байтов: %3, потому что оно не читало</translation>
    </message>
</context>
<context>
    <name>TFileTransfer</name>
    <message>
        <source>the name cannot be sent, it is longer than %1 characters or not in Latin-1</source>
        <translation>имя нельзя передать: оно длиннее %1 символов или не входит в Latin-1</translation>
    </message>
    <message>
        <source>it has more than %1 bytes when compressed</source>
        <translation>в сжатом виде в нём больше %1 байт</translation>
    </message>
    <message>
        <source>A received file is not written, its name is not a plain one: %1</source>
        <translation>Принятый файл не записан, его имя недопустимо: %1</translation>
    </message>
</context>
<context>
    <name>TServerPlugin</name>
    <message>
        <source>Error load settings AdminServerName: NoName </source>
        <translation>Ошибка загрузки настройки AdminServerName: NoName </translation>
    </message>
    <message>
        <source>Error load settings ServerName: NoName </source>
        <translation>Ошибка загрузки настройки ServerName: NoName </translation>
    </message>
    <message>
        <source>Warrning: No Connections </source>
        <translation>Предупреждение: нет соединений </translation>
    </message>
    <message>
        <source>Cannot open database %1: %2</source>
        <translation>Не удалось открыть базу данных %1: %2</translation>
    </message>
</context>
</TS>
